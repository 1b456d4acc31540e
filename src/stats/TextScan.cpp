#include "stats/TextScan.h"

#include <algorithm>
#include <cstring>

#include "platform/device_root.h"

namespace quillend::text {

DeviceText::DeviceText(const char* devicePath)
    : fd_(tavrend::platform::openDeviceFd(devicePath)), buf_(inline_) {}

DeviceText::~DeviceText() {
    if (fd_ >= 0) tavrend::platform::closeDeviceFd(fd_);
}

// Reads more after what is left unreturned, which moves to the front first; a
// line that fills the whole buffer doubles it. False at the end of the file (a
// read error ends it too, as it ends getline()).
bool DeviceText::fill() {
    if (atEnd_ || fd_ < 0) return false;
    if (begin_ > 0) {
        memmove(buf_, buf_ + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == cap_) {
        auto bigger = std::make_unique<char[]>(cap_ * 2 + 1);
        memcpy(bigger.get(), buf_, end_);
        heap_ = std::move(bigger);
        buf_ = heap_.get();
        cap_ *= 2;
    }
    ssize_t n;
    do {
        n = tavrend::platform::readDeviceFd(fd_, buf_ + end_, cap_ - end_);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
        atEnd_ = true;
        return false;
    }
    end_ += static_cast<size_t>(n);
    return true;
}

size_t DeviceText::pieceStartOf(size_t at, size_t max) const {
    const void* nl = memrchr(buf_ + begin_, '\n', at - begin_);
    const size_t lineStart =
        nl == nullptr ? begin_ : static_cast<size_t>(static_cast<const char*>(nl) - buf_) + 1;
    return lineStart + (at - lineStart) / max * max;  // a longer line is cut every max bytes
}

const char* DeviceText::pieceStartingWith(std::initializer_list<std::string_view> prefixes,
                                          size_t size) {
    restore();
    const size_t max = size - 1;
    const char first = prefixes.begin()->front();
    size_t from = begin_;  // where to look for `first` next; a piece starts at begin_
    while (true) {
        const void* found = memchr(buf_ + from, first, end_ - from);
        if (found == nullptr) {
            // The pieces that end here are skipped; the last may go on after
            // what is buffered, with a prefix still to come.
            begin_ = pieceStartOf(end_, max);
            const size_t searched = end_ - begin_;
            if (!fill()) return nullptr;
            from = begin_ + searched;
            continue;
        }
        const size_t at = static_cast<size_t>(static_cast<const char*>(found) - buf_);
        from = at + 1;
        // Mostly `first` opens a line: no need to look for the line's start.
        const size_t start = at == begin_ || buf_[at - 1] == '\n' ? at : pieceStartOf(at, max);
        size_t blank = start;
        while (blank < at && isSpace(buf_[blank])) ++blank;
        if (blank != at) continue;  // inside a piece that starts otherwise
        // The piece starts with `first`; it ends at a newline, after max bytes
        // or at the end of the file, whichever comes first.
        const size_t limit = std::min(end_, start + max);
        bool unread = false;  // a prefix runs past what is buffered
        for (const std::string_view prefix : prefixes) {
            if (at + prefix.size() > limit) {
                unread = unread || (limit == end_ && !atEnd_);
                continue;
            }
            size_t i = 1;
            while (i < prefix.size() && buf_[at + i] == prefix[i]) ++i;
            if (i == prefix.size()) {
                begin_ = start;
                return piece(size);
            }
        }
        if (!unread) continue;
        // Read the whole piece to know.
        begin_ = start;
        const char* text = piece(size);
        const char* opening = text + (at - start);
        for (const std::string_view prefix : prefixes) {
            if (strncmp(opening, prefix.data(), prefix.size()) == 0) return text;
        }
        restore();
        from = begin_;
    }
}

bool DeviceText::firstString(const char*& text) {
    restore();
    if (begin_ == end_ && !fill()) return false;
    const char* start = buf_ + begin_;
    const void* nul = memchr(start, '\0', end_ - begin_);
    if (nul != nullptr &&
        memchr(start, '\n', static_cast<size_t>(static_cast<const char*>(nul) - start)) ==
            nullptr) {
        text = start;  // the NUL ends the first line's text before its end
        return true;
    }
    return line(text) >= 1;
}

ssize_t DeviceText::lineAfterRead(const char*& text) {
    // What is buffered holds no newline.
    while (true) {
        const size_t kept = end_ - begin_;
        if (!fill()) {
            if (kept == 0) return -1;
            const size_t start = begin_;
            text = take(end_);
            return static_cast<ssize_t>(begin_ - start);
        }
        const size_t searched = begin_ + kept;  // the kept bytes moved to the front
        if (const void* nl = memchr(buf_ + searched, '\n', end_ - searched)) {
            const size_t start = begin_;
            text = take(static_cast<size_t>(static_cast<const char*>(nl) - buf_) + 1);
            return static_cast<ssize_t>(begin_ - start);
        }
    }
}

const char* DeviceText::pieceAfterRead(size_t size) {
    const size_t max = size - 1;
    while (true) {
        const size_t available = end_ - begin_;
        if (available >= max) return take(begin_ + max);  // no newline in the first max bytes
        if (!fill()) return available == 0 ? nullptr : take(end_);
        const size_t window = end_ - begin_ < max ? end_ - begin_ : max;
        if (const void* nl = memchr(buf_ + begin_ + available, '\n', window - available)) {
            return take(static_cast<size_t>(static_cast<const char*>(nl) - buf_) + 1);
        }
    }
}

}  // namespace quillend::text
