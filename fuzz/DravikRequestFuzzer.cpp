// The driver emulator's request handling. The input is the text a client
// writes into total_pss_kb, kSectionSeparator, then the smaps_rollup of the
// process that pid 1234 names, e.g. "1234\n" 0x1e "...\nPss:   52311 kB\n...".
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>

#include "DravikDriver.h"
#include "FuzzSupport.h"

namespace {

constexpr int kRollupPid = 1234;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tavrend::fuzz::initHarness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto sections = tavrend::fuzz::splitSections(data, size, 2);
    const std::string_view pidText = sections.empty() ? std::string_view() : sections[0];
    const std::string_view rollup = sections.size() > 1 ? sections[1] : std::string_view();

    // A pid that parses prints back to a text that parses to the same pid.
    const std::optional<int> pid = dravikfs::parsePidText(pidText);
    if (pid) FUZZ_CHECK(dravikfs::parsePidText(std::to_string(*pid)) == pid);

    const std::optional<uint64_t> pssKb = dravikfs::parsePssKb(rollup);
    if (pssKb) {
        // The figure prints back as a rollup line that reads the same.
        FUZZ_CHECK(dravikfs::parsePssKb("Pss: " + std::to_string(*pssKb) + " kB\n") == pssKb);
    }

    // The same two texts through the driver: write the pid, read the answer.
    const std::string rollupPath = "/proc/" + std::to_string(kRollupPid) + "/smaps_rollup";
    tavrend::fuzz::writeDeviceFile(rollupPath, rollup);
    dravikfs::Driver driver({tavrend::fuzz::rootPath() + "/proc", false}, dravikfs::Faults{},
                            getpid());
    const int written = driver.writePss(pidText);
    FUZZ_CHECK((written == 0) == (pid && *pid > 0));
    const std::string answer = driver.readPss();
    if (written == 0 && *pid == kRollupPid) {
        // A longer rollup is read only up to the driver's limit.
        if (rollup.size() <= dravikfs::kMaxRollupBytes) {
            FUZZ_CHECK(answer == (pssKb ? std::to_string(*pssKb) + "\n" : std::string()));
        }
    } else {
        // Nothing selected, or a process the root doesn't have.
        FUZZ_CHECK(answer.empty());
    }
    return 0;
}
