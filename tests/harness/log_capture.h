// Collects log records in memory, each parsed into its columns.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ibp/isp_log.h"

namespace ibptest {

struct LogRecord {
    std::string raw;                 // the whole text as the output function got it
    std::string place, func, level;  // "file-line", "ISP_Init", "ERR"
    std::string module, text;        // "BP", the message without its trailing newline
};

// The log in output-function mode, every threshold at `level`; one at a time.
class LogCapture {
public:
    explicit LogCapture(u32 level = 0);
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogRecord> Records() const;
    // "LEVEL MODULE text" of every record in order, "LEVEL MODULE function text" with bFunc.
    std::vector<std::string> Lines(bool bFunc = false) const;
    void Clear();
    // Records with this level name, module name and exact text.
    size_t Count(const std::string &level, const std::string &module, const std::string &text) const;
    // Records whose text starts with `prefix`, any level and module.
    size_t CountPrefix(const std::string &prefix) const;
    // Sum of the counts that the rate limit wrote for one kind of record ("KIND: N more ...").
    unsigned LeftOut(const std::string &kind) const;
    std::string Dump() const;  // all records, for failure messages
    // The output function, for a start record of the library's own (IBP_Init).
    static LOG_OUTPUT_PFN Sink() { return &LogCapture::Output; }

private:
    static s32 Output(const char *pcText);
    mutable std::mutex mu_;
    std::vector<LogRecord> records_;
};

// A call that is to be refused: true when it gave the refusal's result; the records it writes, as Lines().
struct Refusal {
    std::function<bool()> call;
    std::vector<std::string> lines;
};

// Runs each call on a cleared capture and checks its result and all its records.
void ExpectRefusals(LogCapture &cap, const std::vector<Refusal> &refusals);

}  // namespace ibptest

// Asserts a record "[LEVEL][MODULE]TEXT" was captured by `cap`.
#define EXPECT_LOG(cap, level, module, text)                                              \
    EXPECT_NE((cap).Count(level, module, text), 0u)                                       \
        << "no [" << (level) << "][" << (module) << "]" << (text) << " in:\n" << (cap).Dump()
