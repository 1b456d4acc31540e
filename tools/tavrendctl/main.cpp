// tavrendctl: the host command line for a device root.
//
//   tavrendctl getprop NAME [DEFAULT]
//   tavrendctl setprop NAME VALUE
//
// The device root comes from TAVREND_ROOT, as for the daemon.
#include <cutils/properties.h>

#include <cstdio>
#include <cstring>

namespace {

int usage() {
    fprintf(stderr,
            "usage: tavrendctl getprop NAME [DEFAULT]\n"
            "       tavrendctl setprop NAME VALUE\n"
            "The device root is $TAVREND_ROOT (default /).\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const char* cmd = argv[1];
    if (strcmp(cmd, "getprop") == 0 && (argc == 3 || argc == 4)) {
        char value[PROPERTY_VALUE_MAX];
        property_get(argv[2], value, argc == 4 ? argv[3] : "");
        printf("%s\n", value);
        return 0;
    }
    if (strcmp(cmd, "setprop") == 0 && argc == 4) {
        if (property_set(argv[2], argv[3]) != 0) {
            fprintf(stderr, "tavrendctl: failed to set property '%s' to '%s'\n", argv[2], argv[3]);
            return 1;
        }
        return 0;
    }
    return usage();
}
