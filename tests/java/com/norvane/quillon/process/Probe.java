package com.norvane.quillon.process;

import com.norvane.quillon.process.exception.ProcessOpException;
import com.norvane.quillon.process.linuxutil.ThreadUtil;
import java.util.Arrays;

/**
 * Runs one native in a JVM of its own and prints its outcome as "value" or "ExceptionClass: message",
 * for tests that need another user, another environment or a change of identity.
 */
public final class Probe {
    private Probe() {}

    private static long held;

    interface Action {
        Object run() throws Exception;
    }

    static void print(Action action) {
        try {
            System.out.println(action.run());
        } catch (ProcessOpException e) {
            System.out.println(e.getClass().getSimpleName() + ": " + e.getMessage());
        } catch (Exception e) {
            System.out.println("unexpected " + e);
        }
    }

    public static void main(String[] args) throws Exception {
        UnixProcessGlue glue = UnixProcessGlue.get();
        for (int i = 0; i < args.length; i++) {
            String arg = i + 1 < args.length ? args[i + 1] : null;
            switch (args[i]) {
                case "adopt" -> print(() -> {
                    held = glue.recreate(arg);
                    return glue.id(held);
                });
                case "kill" -> print(() -> {
                    glue.kill(held);
                    return "killed";
                });
                case "stop" -> print(() -> {
                    glue.stop(held);
                    return "stopped";
                });
                case "whoami" -> print(() -> glue.getCurrentProcessUser() + " " + glue.getCurrentProcessGroup() + " "
                        + glue.getCurrentProcessUserOSHomeDir() + " " + glue.isUserPrivileged());
                case "setuser" -> print(() -> {
                    glue.setCurrentProcessUser(arg);
                    return "user now " + glue.getCurrentProcessUser();
                });
                case "setgroup" -> print(() -> {
                    glue.setCurrentProcessGroup(arg);
                    return "group now " + glue.getCurrentProcessGroup();
                });
                case "getenv" -> print(() -> "[" + EnvUtilGlue.get().native_getenv(arg) + "]");
                case "getenvLength" -> print(() -> "[" + EnvUtilGlue.get().native_getenv(arg).length() + "]");
                case "environment" -> print(() -> Arrays.toString(EnvUtilGlue.get().native_getentireenv()));
                case "threading" -> print(() -> ThreadUtil.get().isPOSIXThreading());
                case "sleep" -> print(() -> {
                    System.out.println("ready");
                    System.out.flush();
                    Thread.sleep(Long.parseLong(arg));
                    return "woke";
                });
                default -> {
                    continue;
                }
            }
        }
    }
}
