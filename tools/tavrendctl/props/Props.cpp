// tavrendctl getprop and setprop: the device root's properties, as a device's
// own getprop and setprop see them.
#include <cutils/properties.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "toolbox/Commands.h"

namespace tavrendctl {

namespace {

int getprop(const Args& a) {
    char value[PROPERTY_VALUE_MAX];
    property_get(a.operands[0].c_str(), value, a.operands.size() > 1 ? a.operands[1].c_str() : "");
    printf("%s\n", value);
    return 0;
}

// Why property_set refused NAME=VALUE; errno is what it left.
std::string whySetFailed(const char* name, const char* value, int err) {
    const bool readOnly = strncmp(name, "ro.", 3) == 0;
    if (!readOnly && strlen(value) >= PROPERTY_VALUE_MAX) {
        return "the value is " + std::to_string(strlen(value)) + " bytes, at most " +
               std::to_string(PROPERTY_VALUE_MAX - 1) + " are allowed outside ro.";
    }
    char existing[PROPERTY_VALUE_MAX];
    if (readOnly && property_get(name, existing, "") > 0) return "it is read-only and already set";
    if (err == 0) return "not a property name (letters, digits and . - @ : _ between dots)";
    return std::string("cannot store it under $TAVREND_ROOT/dev/__properties__: ") + strerror(err);
}

int setprop(const Args& a) {
    const char* name = a.operands[0].c_str();
    const char* value = a.operands[1].c_str();
    errno = 0;
    if (property_set(name, value) == 0) return 0;
    const int err = errno;
    fprintf(stderr, "tavrendctl: failed to set property '%s' to '%s': %s\n", name, value,
            whySetFailed(name, value, err).c_str());
    return 1;
}

}  // namespace

const Command kGetpropCommand = {
    "getprop",
    "NAME [DEFAULT]",
    "Prints the value of property NAME, or DEFAULT (else an empty line) when it is\n"
    "unset. Properties are files under $TAVREND_ROOT/dev/__properties__.\n",
    {},
    1,
    2,
    true,
    getprop};

const Command kSetpropCommand = {
    "setprop",
    "NAME VALUE",
    "Sets property NAME to VALUE, as a device does: names are letters, digits and\n"
    ". - @ : _; values are at most 91 bytes except under ro.; an ro. property is\n"
    "set once. Exits 1, saying why, when the set is refused.\n",
    {},
    2,
    2,
    true,
    setprop};

}  // namespace tavrendctl
