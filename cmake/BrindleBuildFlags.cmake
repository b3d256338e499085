# The compiler and linker flags that Debian builds its own programs with, as
# dpkg-buildflags gives them (optimisation, debug information and every
# hardening feature that this release's toolchain has: stack protector,
# _FORTIFY_SOURCE, PIE, full RELRO with immediate binding, and so on), so
# that a build by hand, the tests and the benchmark run the code that the
# Debian package ships.
#
# They go in front of CMAKE_CXX_FLAGS and the linker flags, where CMake puts
# CXXFLAGS and LDFLAGS from the environment: the build type's own flags
# (-O3 for Release) still come after them and win. With no build type of
# its own (-DCMAKE_BUILD_TYPE=None), a build gets exactly the package's
# flags. DEB_BUILD_MAINT_OPTIONS defaults to hardening=+all, as in
# debian/rules; one set in the environment (and DEB_CXXFLAGS_APPEND and the
# like) is honoured. The package's build gets these flags from debhelper
# instead and turns this off; sanitizer and fuzzing builds leave it off
# (_FORTIFY_SOURCE's checked functions bypass AddressSanitizer's). Where
# there is no dpkg-buildflags (a system without dpkg), a build by hand uses
# the compiler's defaults and says so.

option(BRINDLE_DPKG_BUILDFLAGS
  "Build with the flags of dpkg-buildflags (Debian's hardening)" ON)

if(BRINDLE_DPKG_BUILDFLAGS AND (BRINDLE_SANITIZE OR BRINDLE_FUZZ))
  message(STATUS "dpkg-buildflags: not used by a sanitizer or fuzzing build")
elseif(BRINDLE_DPKG_BUILDFLAGS)
  find_program(DPKG_BUILDFLAGS_EXECUTABLE dpkg-buildflags)
endif()

if(BRINDLE_DPKG_BUILDFLAGS AND NOT (BRINDLE_SANITIZE OR BRINDLE_FUZZ)
   AND NOT DPKG_BUILDFLAGS_EXECUTABLE)
  # A system without dpkg (not Debian, or Debian without dpkg-dev): the
  # build goes on with the compiler's own defaults, and says so.
  message(WARNING
    "dpkg-buildflags not found: building with the compiler's default flags "
    "and the build type's, without Debian's hardening flags (on Debian, "
    "install dpkg-dev to build with them; -DBRINDLE_DPKG_BUILDFLAGS=OFF "
    "silences this)")
elseif(BRINDLE_DPKG_BUILDFLAGS AND NOT (BRINDLE_SANITIZE OR BRINDLE_FUZZ))
  set(maint_options "$ENV{DEB_BUILD_MAINT_OPTIONS}")
  if(maint_options STREQUAL "")
    set(maint_options "hardening=+all")
  endif()
  # Debian 13's dpkg adds -fstack-clash-protection on amd64; Debian 12's
  # does not, although its GCC 12 has it. debian/rules asks for it in the
  # same way (and says why not -fcf-protection).
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env DEB_BUILD_MAINT_OPTIONS=${maint_options}
            ${DPKG_BUILDFLAGS_EXECUTABLE} --get CXXFLAGS
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_VARIABLE release_cxxflags
    OUTPUT_STRIP_TRAILING_WHITESPACE
    COMMAND_ERROR_IS_FATAL ANY)
  set(maint_append "$ENV{DEB_CXXFLAGS_MAINT_APPEND}")
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64"
     AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU"
     AND NOT release_cxxflags MATCHES "-fstack-clash-protection")
    string(APPEND maint_append " -fstack-clash-protection")
  endif()
  foreach(kind CPPFLAGS CXXFLAGS LDFLAGS)
    # -ffile-prefix-map maps the directory dpkg-buildflags runs in: the
    # source tree, as in the package's build.
    execute_process(
      COMMAND ${CMAKE_COMMAND} -E env DEB_BUILD_MAINT_OPTIONS=${maint_options}
              "DEB_CXXFLAGS_MAINT_APPEND=${maint_append}"
              ${DPKG_BUILDFLAGS_EXECUTABLE} --get ${kind}
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      OUTPUT_VARIABLE BRINDLE_DPKG_${kind}
      OUTPUT_STRIP_TRAILING_WHITESPACE
      COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  message(STATUS "dpkg-buildflags (${maint_options}): "
    "${BRINDLE_DPKG_CPPFLAGS} ${BRINDLE_DPKG_CXXFLAGS} ${BRINDLE_DPKG_LDFLAGS}")
  # CMake has no CPPFLAGS; like debhelper, pass them with the C++ flags.
  string(PREPEND CMAKE_CXX_FLAGS
    "${BRINDLE_DPKG_CXXFLAGS} ${BRINDLE_DPKG_CPPFLAGS} ")
  foreach(kind EXE SHARED MODULE)
    string(PREPEND CMAKE_${kind}_LINKER_FLAGS "${BRINDLE_DPKG_LDFLAGS} ")
  endforeach()
endif()
