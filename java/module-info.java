/**
 * Launch, supervise and signal Linux processes from Java through the Quillon native library.
 *
 * <p>The library is loaded by this module's code; on a JVM that restricts native access, grant it to this
 * module alone with {@code --enable-native-access=com.norvane.quillon}.
 */
module com.norvane.quillon {
    exports com.norvane.quillon;
    exports com.norvane.quillon.process;
    exports com.norvane.quillon.process.exception;
    exports com.norvane.quillon.process.linuxutil;
}
