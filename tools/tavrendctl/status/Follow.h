// tavrendctl status --follow: a log followed as it grows, across rotation,
// truncation and restarts of the daemon.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

#include "status/Status.h"

namespace tavrendctl::status {

// Feeds the whole lines of what `fd` holds now; keeps a last partial line.
class LineFeed {
public:
    explicit LineFeed(StatusReader& reader) : reader_(reader) {}
    // The number of bytes read; 0 at the end, -1 on an error (errno set).
    ssize_t readOnce(int fd);
    // The last line, when the log does not end in a newline.
    void finish();

private:
    StatusReader& reader_;
    std::string partial_;
};

// Prints the state again; `again` is false for the first print.
using ShowStatus = std::function<void(bool again)>;

// Follows `path` ("-": standard input) on `fd`, which has been read up to
// here, as `tail -F` follows a file: a file moved aside or removed and made
// anew is reopened from its start, one cut back is read again from its start.
// A new "Starting Tavren Daemon" is the new run; after "Exiting" it says so
// and waits for the daemon to start again. `fd` stays the caller's.
//
// The exit status: at the end of standard input 0, or 1 when it held no run;
// 0 when the reader of standard output has gone; 2 after a read error, which
// is one line on standard error. ^C ends it as it ends any filter.
int followLog(const std::string& path, int fd, LineFeed& feed, const StatusReader& reader,
              const ShowStatus& show, bool shown);

}  // namespace tavrendctl::status
