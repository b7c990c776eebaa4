// Collects log records in memory: the log runs in output-function mode and
// every record that passes its threshold is parsed into its columns.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "ibp/isp_log.h"

namespace ibptest {

struct LogRecord {
    std::string raw;     // the whole text as the output function got it
    std::string place;   // "file-line"
    std::string func;
    std::string level;   // "DBG", "INF", "WRN", "ERR"
    std::string module;  // "BP", "CLI", ...
    std::string text;    // the message, without the trailing newline
};

// Starts the log in output-function mode with every threshold at `level` and
// stops it again at the end of the scope. One capture at a time.
class LogCapture {
public:
    explicit LogCapture(u32 level = 0);
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogRecord> Records() const;
    void Clear();

    // Number of records with this level name, module name and exact text.
    size_t Count(const std::string &level, const std::string &module, const std::string &text) const;
    bool Has(const std::string &level, const std::string &module, const std::string &text) const
    {
        return Count(level, module, text) != 0;
    }
    // Records whose text starts with `prefix`, any level and module.
    size_t CountPrefix(const std::string &prefix) const;
    // All records, one per line, for failure messages.
    std::string Dump() const;
    // The output function, for a start record of the library's own (IBP_Init).
    static LOG_OUTPUT_PFN Sink() { return &LogCapture::Output; }

private:
    static s32 Output(const char *pcText);
    mutable std::mutex mu_;
    std::vector<LogRecord> records_;
};

// Parses one record; false when the text has not the shape of a record head.
bool ParseRecord(const std::string &raw, LogRecord *rec);

}  // namespace ibptest

// Asserts a record "[LEVEL][MODULE]TEXT" was captured by `cap`.
#define EXPECT_LOG(cap, level, module, text)                                   \
    EXPECT_TRUE((cap).Has(level, module, text))                                \
        << "no [" << (level) << "][" << (module) << "]" << (text) << " in:\n"  \
        << (cap).Dump()
