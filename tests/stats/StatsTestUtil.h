// Small helpers shared by the statistics tests.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

#include "support/DeviceRoot.h"

namespace quillend::test {

inline tavrend::test::FakeProcess proc(int pid, std::string comm, std::string cmdline = {},
                                       std::string status = {}) {
    tavrend::test::FakeProcess p;
    p.pid = pid;
    p.comm = std::move(comm);
    p.cmdline = std::move(cmdline);
    p.status = std::move(status);
    return p;
}

inline std::string slurp(const std::string& path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

}  // namespace quillend::test
