# Installation in the GNU layout with Debian's Java conventions, and the Debian packages CPack builds from
# it: libquillon-jni (the library, per architecture) and libquillon-java (jar, demo and javadoc).
set(CMAKE_INSTALL_DOCDIR share/doc/quillon CACHE PATH "Documentation root (DATAROOTDIR/doc/quillon)")
include(GNUInstallDirs)

# Debian keeps JNI libraries in the multiarch library directory, where OpenJDK looks by default.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(QUILLON_INSTALL_JNIDIR lib/${CMAKE_LIBRARY_ARCHITECTURE}/jni CACHE PATH "JNI library directory")
else()
  set(QUILLON_INSTALL_JNIDIR lib/jni CACHE PATH "JNI library directory")
endif()

# One regular file under the name System.loadLibrary looks for; libraries are not executable.
install(FILES $<TARGET_FILE:Quillon60ProcessManagement> DESTINATION ${QUILLON_INSTALL_JNIDIR}
  RENAME libQuillon60ProcessManagement.so COMPONENT jni)
if(CMAKE_STRIP)
  install(CODE "if(CMAKE_INSTALL_DO_STRIP)
    execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-unneeded
      \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${QUILLON_INSTALL_JNIDIR}/libQuillon60ProcessManagement.so\")
  endif()" COMPONENT jni)
endif()

# The versioned jar and the unversioned link to it.
install(FILES ${QUILLON_JAR} DESTINATION ${CMAKE_INSTALL_DATADIR}/java RENAME quillon-${PROJECT_VERSION}.jar
  COMPONENT java)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/install-links)
file(CREATE_LINK quillon-${PROJECT_VERSION}.jar ${CMAKE_BINARY_DIR}/install-links/quillon.jar SYMBOLIC)
install(FILES ${CMAKE_BINARY_DIR}/install-links/quillon.jar DESTINATION ${CMAKE_INSTALL_DATADIR}/java
  COMPONENT java)
install(FILES $<TARGET_PROPERTY:quillon-demo,JAR_FILE> DESTINATION ${CMAKE_INSTALL_DATADIR}/quillon COMPONENT java)
install(DIRECTORY ${QUILLON_JAVADOC}/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/api COMPONENT java)

# The Maven coordinates in packaging/pom.xml follow the project version.
file(READ ${CMAKE_SOURCE_DIR}/packaging/pom.xml QUILLON_POM)
string(REGEX MATCH "<artifactId>quillon</artifactId>[ \n]*<version>([^<]*)</version>" QUILLON_POM "${QUILLON_POM}")
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/pom.xml has version '${CMAKE_MATCH_1}', the project ${PROJECT_VERSION}")
endif()

set(CPACK_PACKAGE_NAME quillon)
set(CPACK_PACKAGE_VENDOR Norvane)
set(CPACK_PACKAGE_CONTACT "Norvane Quillon team <quillon@norvane.com>")
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL jni java)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION java)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_JNI_PACKAGE_NAME libquillon-jni)
set(QUILLON_ABOUT "Quillon lets a Java program launch processes with a full context (environment,
directory, user, group, redirections, umask, priority), attached or detached,
supervise them by handle and signal them.")
set(CPACK_DEBIAN_JNI_DESCRIPTION "Launch and supervise Linux processes from Java (native library)
${QUILLON_ABOUT}
This package holds the JNI library libQuillon60ProcessManagement.so.")
set(CPACK_DEBIAN_JAVA_PACKAGE_NAME libquillon-java)
set(CPACK_DEBIAN_JAVA_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_JAVA_PACKAGE_DEPENDS "libquillon-jni (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_JAVA_DESCRIPTION "Launch and supervise Linux processes from Java
${QUILLON_ABOUT}
This package holds quillon.jar, a demo and the API documentation.")
# Dependencies: the runtime packages of the libraries it links, as dpkg-shlibdeps finds them (it needs
# `file` too); without it, the C and C++ runtimes a build of it may need.
find_program(QUILLON_DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(QUILLON_FILE_COMMAND file)
if(QUILLON_DPKG_SHLIBDEPS AND QUILLON_FILE_COMMAND)
  set(CPACK_DEBIAN_JNI_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_JNI_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 11)")
endif()
include(CPack)
