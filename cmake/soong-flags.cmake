# The daemon compiled as release 10's Soong compiles it (TAVREND_SOONG_FLAGS,
# clang only): Soong's global flags, then the module's own cflags and cppflags
# as Android.bp gives them, in the order release 10's build puts them on a C++
# compile line (build/soong cc/builder.go, TransformSourceToObj): the global
# flags, the module's cflags, then the C++ flags, which cc/compiler.go
# (compilerFlags) assembles as -std=gnu++17, the global C++ flags, the module's
# cppflags and -fno-rtti; the flags no module may override come last.
#
# Soong's global flags turn exceptions off (-fno-exceptions) and the daemon
# needs them: only the module's "-fexceptions" among its cppflags, which come
# after the global flags, turns them back on. The flags are read from
# Android.bp at configure time, and a change to it configures again.
#
# Left out, as a host compiler cannot take them: Soong's target and toolchain
# flags (-target, -B, the architecture's own flags), the include paths of a
# platform tree, -nostdlibinc (which would drop the host's C library headers)
# and -fno-canonical-system-headers (GCC's; Soong filters it out for clang).

# From cc/config/global.go: commonGlobalCflags (its -fno-exceptions is the one
# the module's cppflags must undo), then the clang extras of cc/config/clang.go
# (ClangExtraCflags) that Soong appends to them (CommonClangGlobalCflags).
set(tavrend_soong_common_cflags
  -DANDROID -fmessage-length=0 -W -Wall -Wno-unused -Winit-self -Wpointer-arith
  -no-canonical-prefixes -DNDEBUG -UDEBUG -fno-exceptions -Wno-multichar -O2 -g
  -fno-strict-aliasing -fdebug-prefix-map=/proc/self/cwd=
  -D__compiler_offsetof=__builtin_offsetof -faddrsig -Werror=int-conversion
  -fexperimental-new-pass-manager -Wno-reserved-id-macro -Wno-unused-command-line-argument
  -fcolor-diagnostics -Wno-sign-compare -Wno-defaulted-function-deleted
  -Wno-inconsistent-missing-override)
# From cc/config/global.go: deviceGlobalCflags (DeviceClangGlobalCflags).
set(tavrend_soong_device_cflags
  -fdiagnostics-color -ffunction-sections -fdata-sections -fno-short-enums -funwind-tables
  -fstack-protector-strong -Wa,--noexecstack -D_FORTIFY_SOURCE=2 -Wstrict-aliasing=2
  -Werror=return-type -Werror=non-virtual-dtor -Werror=address -Werror=sequence-point
  -Werror=date-time -Werror=format-security)
# From cc/compiler.go: what every module of ours gets beside them (code outside
# external/ is built with ANDROID_STRICT).
set(tavrend_soong_module_defaults -DANDROID_STRICT)
# From cc/config/global.go: commonGlobalCppflags with cc/config/clang.go's
# ClangExtraCppflags (CommonClangGlobalCppflags), then deviceGlobalCppflags.
set(tavrend_soong_cppflags
  -Wsign-promo -Wimplicit-fallthrough -D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS
  -Wno-gnu-include-next -fvisibility-inlines-hidden)
# From cc/config/global.go: noOverrideGlobalCflags, with cc/config/clang.go's
# ClangExtraNoOverrideCflags (NoOverrideClangGlobalCflags).
set(tavrend_soong_no_override
  -Werror=int-to-pointer-cast -Werror=pointer-to-int-cast -Werror=address-of-temporary
  -Werror=return-type -Wno-tautological-constant-compare -Wno-tautological-type-limit-compare)

# tavrend_bp_list(<bp file> <module name> <property> <out var>)
# The strings of one list property of one module of a bpfmt-formatted file:
# the module's block runs from its "name:" line to the next line holding only
# "}". A property the module lacks gives an empty list.
function(tavrend_bp_list bp module property out)
  file(STRINGS ${bp} lines)
  set(in_module OFF)
  set(in_list OFF)
  set(values "")
  foreach(line IN LISTS lines)
    if(line MATCHES "^    name: \"([^\"]*)\",$")
      set(in_module OFF)
      if(CMAKE_MATCH_1 STREQUAL module)
        set(in_module ON)
      endif()
    elseif(line STREQUAL "}")
      set(in_module OFF)
    elseif(in_module AND line MATCHES "^    ${property}: \\[(.*)$")
      set(rest "${CMAKE_MATCH_1}")
      set(in_list ON)
      if(rest MATCHES "\\],$")
        set(in_list OFF)
      endif()
      string(REGEX MATCHALL "\"[^\"]*\"" found "${rest}")
      list(APPEND values ${found})
    elseif(in_list)
      if(line MATCHES "^    \\],$")
        set(in_list OFF)
      else()
        string(REGEX MATCHALL "\"[^\"]*\"" found "${line}")
        list(APPEND values ${found})
      endif()
    endif()
  endforeach()
  list(TRANSFORM values REPLACE "^\"(.*)\"$" "\\1")
  set(${out} "${values}" PARENT_SCOPE)
endfunction()

# Sets the compile options of the targets the caller creates next (the
# daemon's folders under src/) to Soong's line, and drops CMake's own -std.
# The caller restores CMAKE_CXX_STANDARD and CMAKE_CXX_EXTENSIONS after them.
macro(tavrend_use_soong_flags)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TAVREND_SOONG_FLAGS: release 10's Soong compiles with clang; "
                        "this build has ${CMAKE_CXX_COMPILER_ID}")
  endif()
  set(tavrend_bp ${PROJECT_SOURCE_DIR}/Android.bp)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${tavrend_bp})
  tavrend_bp_list(${tavrend_bp} tavrend cflags tavrend_module_cflags)
  tavrend_bp_list(${tavrend_bp} tavrend cppflags tavrend_module_cppflags)
  message(STATUS "Soong flags: Android.bp's cflags: ${tavrend_module_cflags}; "
                 "cppflags: ${tavrend_module_cppflags}")
  # No -std of CMake's: with no standard and extensions on it adds none.
  unset(CMAKE_CXX_STANDARD)
  set(CMAKE_CXX_EXTENSIONS ON)
  set_directory_properties(PROPERTIES COMPILE_OPTIONS "")
  add_compile_options(
    ${tavrend_soong_common_cflags} ${tavrend_soong_device_cflags}
    ${tavrend_soong_module_defaults} ${tavrend_module_cflags}
    -std=gnu++17 ${tavrend_soong_cppflags} ${tavrend_module_cppflags} -fno-rtti
    ${tavrend_soong_no_override})
  # Not Soong's: the project's own check that no static has a destructor.
  add_compile_options(-Wexit-time-destructors)
endmacro()
