#include "harness/log_capture.h"

#include <cstdio>
#include <cstring>

#include "ibp/isp_log.h"

namespace ibptest {

namespace {
LogCapture *gActive = nullptr;
}

LogCapture::LogCapture(u32 level)
{
    LOG_INIT_S init{};
    init.ulOutputMode = 2;
    init.pfnOutput = &LogCapture::Output;
    for (u32 &l : init.aulLevel)
        l = level;
    gActive = this;
    IBP_LOG_Init(&init);
    Clear();  // drop the init record itself
}

LogCapture::~LogCapture()
{
    IBP_LOG_Destroy();
    gActive = nullptr;
}

s32 LogCapture::Output(const char *pcText)
{
    LogCapture *self = gActive;
    if (self == nullptr)
        return 0;
    LogRecord rec;
    if (!ParseRecord(pcText, &rec))
        rec.raw = pcText;
    std::lock_guard<std::mutex> lock(self->mu_);
    self->records_.push_back(std::move(rec));
    return 0;
}

std::vector<LogRecord> LogCapture::Records() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return records_;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(mu_);
    records_.clear();
}

size_t LogCapture::Count(const std::string &level, const std::string &module,
                         const std::string &text) const
{
    std::lock_guard<std::mutex> lock(mu_);
    size_t n = 0;
    for (const LogRecord &r : records_)
        n += (r.level == level && r.module == module && r.text == text) ? 1 : 0;
    return n;
}

size_t LogCapture::CountPrefix(const std::string &prefix) const
{
    std::lock_guard<std::mutex> lock(mu_);
    size_t n = 0;
    for (const LogRecord &r : records_)
        n += r.text.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    return n;
}

std::string LogCapture::Dump() const
{
    std::lock_guard<std::mutex> lock(mu_);
    std::string all;
    for (const LogRecord &r : records_)
        all += r.raw + (r.raw.empty() || r.raw.back() != '\n' ? "\n" : "");
    return all;
}

// "YYYY-MM-DD hh:mm:ss.mmm <place padded>@<func padded> [LVL][MOD]text\n"
bool ParseRecord(const std::string &raw, LogRecord *rec)
{
    rec->raw = raw;
    if (raw.size() < 24 || raw[4] != '-' || raw[10] != ' ' || raw[19] != '.' || raw[23] != ' ')
        return false;
    size_t at = raw.find('@', 24);
    if (at == std::string::npos)
        return false;
    size_t placeEnd = raw.find_last_not_of(' ', at - 1);
    rec->place = raw.substr(24, placeEnd + 1 - 24);
    size_t lvl = raw.find(" [", at);
    if (lvl == std::string::npos || raw.size() < lvl + 7 || raw[lvl + 5] != ']' || raw[lvl + 6] != '[')
        return false;
    size_t funcEnd = raw.find_last_not_of(' ', lvl);
    rec->func = raw.substr(at + 1, funcEnd - at);
    std::string level = raw.substr(lvl + 2, 3);
    rec->level = level.substr(level.find_first_not_of(' '));
    size_t modEnd = raw.find(']', lvl + 7);
    if (modEnd == std::string::npos)
        return false;
    rec->module = raw.substr(lvl + 7, modEnd - lvl - 7);
    rec->text = raw.substr(modEnd + 1);
    if (!rec->text.empty() && rec->text.back() == '\n')
        rec->text.pop_back();
    return true;
}

}  // namespace ibptest
