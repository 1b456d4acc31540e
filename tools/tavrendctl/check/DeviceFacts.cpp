// What check-config learns of the device root beside its configuration: its
// memory, and its processes named as the daemon names them (through the
// daemon's own readers).

#include <cstdio>
#include <cstring>
#include <string>

#include "check/ConfigRules.h"
#include "platform/host_root.h"
#include "stats/StatUtil.h"

namespace tavrendctl {
namespace {

// The device's memory as the daemon reads it; 0 when the root has no meminfo.
uint64_t readMemTotalKb() {
    quillend::SysMeminfoKb info;
    return quillend::StatUtil::getMeminfo(info) ? info.mem_total : 0;
}

std::string removeBlanks(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c != ' ') out += c;
    }
    return out;
}

// The kernel's short name, as /proc/PID/comm holds it.
std::string commOf(int pid) {
    const std::string path = tavrend::platform::hostPath("/proc/" + std::to_string(pid) + "/comm");
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) return "";
    char text[64] = {};
    if (fgets(text, sizeof(text), f) == nullptr) text[0] = '\0';
    fclose(f);
    text[strcspn(text, "\n")] = '\0';
    return text;
}

}  // namespace

DeviceFacts readDeviceFacts() {
    DeviceFacts facts;
    // A root without a proc/ of its own reads the machine's: not the device's.
    const bool ownProc =
        tavrend::platform::deviceRoot() == "/" || tavrend::platform::hostPath("/proc") != "/proc";
    if (!ownProc) return facts;
    facts.memTotalKb = readMemTotalKb();
    std::vector<int> pids;
    if (!quillend::StatUtil::getProcessList(pids)) return facts;
    for (int pid : pids) {
        char name[32];
        if (!quillend::StatUtil::getProcessName(pid, name)) continue;
        DeviceFacts::Process p;
        p.pid = pid;
        p.name = name;
        p.comm = commOf(pid);
        std::string cmdline;
        if (quillend::StatUtil::getProcessCmdline(pid, cmdline)) p.program = removeBlanks(cmdline);
        facts.processes.push_back(std::move(p));
    }
    facts.hasProcesses = !facts.processes.empty();
    return facts;
}

}  // namespace tavrendctl
