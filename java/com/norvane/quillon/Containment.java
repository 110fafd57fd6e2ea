package com.norvane.quillon;

/** How the tree of a program is held together, as {@link NativeProcess#containment()} says. */
public enum Containment {
    /** Not contained: {@link NativeProcess#killTree()} walks the tree while the root runs. */
    NONE,
    /**
     * A cgroup of its own: every process the program starts stays in it whatever it does (setsid, double
     * forks), and a kill reaches them all at once, also after the program itself has ended.
     */
    CGROUP,
    /**
     * The process group the program leads, where no writable cgroup v2 hierarchy exists: a member that calls
     * {@code setsid} or {@code setpgid} leaves the group and the tree's reach.
     */
    PROCESS_GROUP
}
