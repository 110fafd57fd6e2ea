package com.norvane.quillon;

import java.time.Duration;

/** What an ended program used, as {@link NativeProcess#usage()} gives it. Immutable. */
public final class ProcessUsage {
    private final Duration userTime;
    private final Duration systemTime;
    private final long peakMemoryBytes;
    private final boolean killedForMemory;
    private final boolean complete;

    ProcessUsage(Duration userTime, Duration systemTime, long peakMemoryBytes, boolean killedForMemory,
            boolean complete) {
        this.userTime = userTime;
        this.systemTime = systemTime;
        this.peakMemoryBytes = peakMemoryBytes;
        this.killedForMemory = killedForMemory;
        this.complete = complete;
    }

    /** @return CPU time in user mode, of the program and the descendants it waited for */
    public Duration userTime() {
        return userTime;
    }

    /** @return CPU time in the kernel, of the program and the descendants it waited for */
    public Duration systemTime() {
        return systemTime;
    }

    /**
     * @return the peak memory of the contained tree as a whole where a cgroup counts it (with a
     *     {@link Launcher#memoryLimit}); -1 elsewhere: the kernel counts a launched program as using the JVM's
     *     resident memory until its exec (it shares the JVM's memory until then), so its own peak can't be told
     */
    public long peakMemoryBytes() {
        return peakMemoryBytes;
    }

    /** @return whether a member of the contained tree was killed for going over its memory limit */
    public boolean killedForMemory() {
        return killedForMemory;
    }

    /**
     * @return whether the figures are final: false while members of the program's contained tree still run
     *     after the program itself (then the peak and {@link #killedForMemory()} are those seen so far; see
     *     {@link NativeProcess#waitForTree})
     */
    public boolean complete() {
        return complete;
    }

    @Override
    public String toString() {
        return "ProcessUsage[user " + userTime.toMillis() + " ms, system " + systemTime.toMillis() + " ms, peak "
                + peakMemoryBytes + " bytes" + (killedForMemory ? ", killed for memory" : "")
                + (complete ? "" : ", tree still running") + "]";
    }
}
