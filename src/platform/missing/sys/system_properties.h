// Bionic's <sys/system_properties.h>, which the platform's <cutils/properties.h>
// includes and a glibc host lacks. The daemon calls only the libcutils
// functions, so compiling against the platform's headers needs nothing from
// it. A platform tree has bionic's own.
#pragma once
