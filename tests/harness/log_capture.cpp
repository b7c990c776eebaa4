#include "harness/log_capture.h"

#include <algorithm>

namespace ibptest {

namespace {
LogCapture *gActive = nullptr;

// "YYYY-MM-DD hh:mm:ss.mmm <place padded>@<func padded> [LVL][MOD]text\n", else only `raw`.
void Parse(LogRecord *r)
{
    const std::string &s = r->raw;
    const size_t npos = std::string::npos, at = s.size() > 24 ? s.find('@', 24) : npos;
    const size_t lvl = at == npos ? npos : s.find(" [", at);
    const size_t mod = lvl == npos || s.size() < lvl + 7 ? npos : s.find(']', lvl + 7);
    if (mod == npos || s[4] != '-' || s[10] != ' ' || s[19] != '.' || s[23] != ' ' || s[lvl + 5] != ']' ||
        s[lvl + 6] != '[')
        return;
    r->place = s.substr(24, s.find_last_not_of(' ', at - 1) + 1 - 24);
    r->func = s.substr(at + 1, s.find_last_not_of(' ', lvl) - at);
    r->level = s.substr(lvl + 2, 3);
    r->module = s.substr(lvl + 7, mod - lvl - 7);
    r->text = s.substr(mod + 1, s.back() == '\n' ? s.size() - mod - 2 : npos);
}

template <typename Pred> size_t CountIf(const LogCapture &cap, Pred pred)
{
    const auto recs = cap.Records();
    return std::count_if(recs.begin(), recs.end(), pred);
}

}  // namespace

LogCapture::LogCapture(u32 level)
{
    LOG_INIT_S init{};
    init.ulOutputMode = LOG_OUTPUT_FUNC;
    init.pfnOutput = &LogCapture::Output;
    std::fill(std::begin(init.aulLevel), std::end(init.aulLevel), level);
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
    if (gActive == nullptr)
        return 0;
    LogRecord rec;
    rec.raw = pcText;
    Parse(&rec);
    std::lock_guard<std::mutex> lock(gActive->mu_);
    gActive->records_.push_back(std::move(rec));
    return 0;
}

std::vector<LogRecord> LogCapture::Records() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return records_;
}

std::vector<std::string> LogCapture::Lines(bool bFunc) const
{
    std::vector<std::string> lines;
    for (const LogRecord &r : Records())
        lines.push_back(r.level + " " + r.module + " " + (bFunc ? r.func + " " : "") + r.text);
    return lines;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(mu_);
    records_.clear();
}

size_t LogCapture::Count(const std::string &level, const std::string &module, const std::string &text) const
{
    return CountIf(*this, [&](const LogRecord &r) { return r.level == level && r.module == module && r.text == text; });
}

size_t LogCapture::CountPrefix(const std::string &prefix) const
{
    return CountIf(*this, [&](const LogRecord &r) { return r.text.compare(0, prefix.size(), prefix) == 0; });
}

unsigned LogCapture::LeftOut(const std::string &kind) const
{
    unsigned ulSum = 0;
    for (const LogRecord &r : Records())
        if (r.text.starts_with(kind + ": "))
            ulSum += static_cast<unsigned>(std::stoul(r.text.substr(kind.size() + 2)));
    return ulSum;
}

std::string LogCapture::Dump() const
{
    std::string all;
    for (const LogRecord &r : Records())
        all += r.raw + (r.raw.empty() || r.raw.back() != '\n' ? "\n" : "");
    return all;
}

void ExpectRefusals(LogCapture &cap, const std::vector<Refusal> &refusals)
{
    for (const auto &[call, lines] : refusals) {
        SCOPED_TRACE(lines.empty() ? "(no record)" : lines.back());
        cap.Clear();
        EXPECT_TRUE(call());
        EXPECT_EQ(cap.Lines(), lines);
    }
}

}  // namespace ibptest
