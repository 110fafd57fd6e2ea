package com.norvane.quillon;

import java.util.AbstractMap;
import java.util.AbstractSet;
import java.util.Iterator;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Objects;
import java.util.Set;

/**
 * The complete environment of a program to be launched, as {@link Launcher#environment()} hands it out: a
 * live, mutable map that refuses what the system can't hold, as {@code ProcessBuilder}'s does (null, a name
 * that is empty or holds '=' or NUL, a value that holds NUL).
 */
final class Environment extends AbstractMap<String, String> {
    private final Map<String, String> variables = new LinkedHashMap<>();

    Environment(Map<String, String> initial) {
        initial.forEach(this::put);
    }

    static String checkName(String name) {
        if (Objects.requireNonNull(name, "name").isEmpty() || name.indexOf('=') >= 0 || name.indexOf('\0') >= 0) {
            throw new IllegalArgumentException("Invalid environment variable name: \"" + name + "\"");
        }
        return name;
    }

    static String checkValue(String value) {
        if (Objects.requireNonNull(value, "value").indexOf('\0') >= 0) {
            throw new IllegalArgumentException("Invalid environment variable value: \"" + value + "\"");
        }
        return value;
    }

    @Override
    public String put(String name, String value) {
        return variables.put(checkName(name), checkValue(value));
    }

    @Override
    public String get(Object name) {
        return variables.get(name);
    }

    @Override
    public boolean containsKey(Object name) {
        return variables.containsKey(name);
    }

    @Override
    public String remove(Object name) {
        return variables.remove(name);
    }

    @Override
    public void clear() {
        variables.clear();
    }

    @Override
    public Set<Entry<String, String>> entrySet() {
        return new AbstractSet<>() {
            @Override
            public Iterator<Entry<String, String>> iterator() {
                Iterator<Entry<String, String>> entries = variables.entrySet().iterator();
                return new Iterator<>() {
                    @Override
                    public boolean hasNext() {
                        return entries.hasNext();
                    }

                    @Override
                    public Entry<String, String> next() {
                        Entry<String, String> entry = entries.next();
                        return new SimpleEntry<>(entry) {
                            @Override
                            public String setValue(String value) {
                                String checked = checkValue(value);
                                super.setValue(checked);
                                return entry.setValue(checked);
                            }
                        };
                    }

                    @Override
                    public void remove() {
                        entries.remove();
                    }
                };
            }

            @Override
            public int size() {
                return variables.size();
            }
        };
    }

    /** key=value entries, in the map's order. */
    String[] entries() {
        String[] entries = new String[variables.size()];
        int i = 0;
        for (Entry<String, String> variable : variables.entrySet()) {
            entries[i++] = variable.getKey() + "=" + variable.getValue();
        }
        return entries;
    }
}
