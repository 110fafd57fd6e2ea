/**
 * Launch and supervise Linux processes from Java: {@link com.norvane.quillon.Launcher} starts programs in
 * the manner of {@link java.lang.ProcessBuilder}, with a nice value, umask, user, group, process group, an
 * added environment or a detached start, and {@link com.norvane.quillon.NativeProcess} follows them (and
 * any adopted process) as a {@link java.lang.Process}, with signals, tree kills and an owned native handle.
 *
 * <pre>{@code
 * try (NativeProcess job = new Launcher("/usr/bin/make", "all").newProcessGroup().start()) {
 *     if (!job.waitFor(10, TimeUnit.MINUTES)) {
 *         job.killTree();
 *     }
 * }
 * }</pre>
 */
package com.norvane.quillon;
