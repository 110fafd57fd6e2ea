package com.norvane.quillon;

/**
 * The per-process resource limits {@link Launcher#limit} sets in a new program before its exec (Linux
 * {@code setrlimit}). Each holds for the program alone (its children inherit their own copy), except
 * {@link #PROCESSES}, which counts all processes of the program's user.
 */
public enum ResourceLimit {
    /** CPU time in seconds; SIGXCPU at the soft limit, SIGKILL at the hard one. */
    CPU_SECONDS(0),
    /** The largest file the program may write, in bytes; SIGXFSZ beyond. */
    FILE_SIZE(1),
    /** The data segment (heap) in bytes. */
    DATA_SIZE(2),
    /** The main thread's stack in bytes. */
    STACK_SIZE(3),
    /** The largest core dump in bytes; 0 for none. */
    CORE_SIZE(4),
    /** The processes and threads of the program's user, counted across all of them. */
    PROCESSES(6),
    /** Open descriptors: one more than the highest descriptor number the program may open. */
    OPEN_FILES(7),
    /** Memory locked in RAM, in bytes. */
    LOCKED_MEMORY(8),
    /** The virtual address space in bytes. */
    ADDRESS_SPACE(9);

    final int resource;

    ResourceLimit(int resource) {
        this.resource = resource;
    }
}
