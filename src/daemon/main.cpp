#include "daemon/Daemon.h"

int main() { return tavrend::daemonMain(); }
