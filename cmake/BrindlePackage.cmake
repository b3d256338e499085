# CPack settings for the Debian package: `cpack -G DEB` in a build directory
# configured with -DCMAKE_INSTALL_PREFIX=/usr writes brindle_<version>_<arch>.deb.
# The shared-library dependencies (libcurl, the Boost runtime libraries, the C
# and C++ runtimes) are computed by dpkg-shlibdeps from the installed binary.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME brindle)
set(CPACK_PACKAGE_VENDOR "The brindle developers")
set(CPACK_PACKAGE_CONTACT "The brindle developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "command-line FTP client for scripts and cron jobs")
# The long description, one line of the control file a line.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "brindle manages files on an FTP server from the command line, for scripts,\n"
  "cron jobs and people at a shell. One run does one command: upload a local\n"
  "file or tree, download a remote file or tree, remove a remote file or tree,\n"
  "or list a remote directory. It retries transient failures with back-off,\n"
  "switches to a named local account before it touches any local file, and\n"
  "never writes outside its local target, whatever the server's listing says.")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS bash-completion)

include(CPack)
