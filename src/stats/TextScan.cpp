#include "stats/TextScan.h"

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

const char* DeviceText::pieceStartingWith(char first, size_t size) {
    restore();
    const size_t max = size - 1;
    while (true) {
        const void* found = memchr(buf_ + begin_, first, end_ - begin_);
        if (found == nullptr) {
            // The pieces that end here are skipped; the last may go on after
            // what is buffered, with `first` still to come.
            begin_ = pieceStartOf(end_, max);
            if (!fill()) return nullptr;
            continue;
        }
        const size_t at = static_cast<size_t>(static_cast<const char*>(found) - buf_);
        // Mostly `first` opens a line: no need to look for the line's start.
        const size_t start = at == begin_ || buf_[at - 1] == '\n' ? at : pieceStartOf(at, max);
        size_t blank = start;
        while (blank < at && isSpace(buf_[blank])) ++blank;
        begin_ = start;
        if (blank == at) return piece(size);  // `first` opens this piece
        piece(size);                          // found inside another piece: past it
        restore();
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
