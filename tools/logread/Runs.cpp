#include "Runs.h"

#include <climits>

#include "Numbers.h"
#include "stats/StatUtil.h"

namespace logread {

const char* conditionName(Condition c) {
    switch (c) {
        case Condition::None: return "none";
        case Condition::Memory: return "memory";
        case Condition::Latency: return "latency";
    }
    return "none";
}

void ConditionRule::see(Kind k) {
    if (k == Kind::MemoryCondition) memory_ = true;
    if (k == Kind::LatencyCondition) latency_ = true;
}

Condition ConditionRule::pending() const {
    return memory_ ? Condition::Memory : latency_ ? Condition::Latency : Condition::None;
}

Condition ConditionRule::take() {
    const Condition c = pending();
    memory_ = latency_ = false;
    return c;
}

std::optional<std::string_view> Run::configText(std::string_view key) const {
    // The last of a key the daemon printed twice is the one it holds.
    for (auto it = config.rbegin(); it != config.rend(); ++it) {
        if (it->first == key) return it->second;
    }
    return std::nullopt;
}

std::optional<int64_t> Run::configNumber(std::string_view key) const {
    const auto text = configText(key);
    if (!text) return std::nullopt;
    return signedOf(*text, INT_MIN, INT_MAX);  // printed with %d
}

Step RunReader::feed(const Line& line) {
    Step step;
    const bool daemonTag = line.tag == kDaemonTag;
    if (daemonTag) step.event = classify(line.message);
    if (daemonTag && step.event.kind == Kind::Start) {
        run_ = Run{};
        run_.pid = line.pid;
        run_.started = line.at;
        found_ = true;
        inConfig_ = false;
        rule_ = ConditionRule{};
        step.started = true;
    }
    if (!found_ || line.pid != run_.pid) return Step{};
    if (line.tag == kReaderTag) {
        step.source = Source::Reader;
        step.event = classify(line.message);
        return step;
    }
    if (!daemonTag) return Step{};
    step.source = Source::Daemon;
    if (step.event.kind == Kind::ConfigBegin) {
        run_.config.clear();
        inConfig_ = true;
        return step;
    }
    if (inConfig_) {
        const size_t colon = line.message.find(": ");
        if (step.event.kind == Kind::ConfigEnd || colon == std::string_view::npos) {
            inConfig_ = false;
        } else {
            run_.config.emplace_back(line.message.substr(0, colon), line.message.substr(colon + 2));
            step.config = true;
            return step;
        }
    }
    rule_.see(step.event.kind);
    if (step.event.kind == Kind::Report) step.condition = rule_.take();
    return step;
}

int32_t decidingLmkKills(const Event& lmkStats, std::string_view counterThreshold) {
    uint32_t sum = 0;
    for (size_t i = 0; i < quillend::kLmkClassCount && i < lmkStats.count; ++i) {
        sum += static_cast<uint32_t>(lmkStats.fields[i].u);
        const std::string_view label = quillend::kLmkLabels[i];
        if (label.substr(0, label.size() - 1) == counterThreshold) break;
    }
    return static_cast<int32_t>(sum);
}

}  // namespace logread
