// Files and open documents for the XML tests; everything lives in the test's private /tmp.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_xml.h"

namespace xmltest {

using Texts = std::vector<std::string>;

inline void WriteFile(const std::string &path, const std::string &data)
{
    FILE *fp = fopen(path.c_str(), "wb");
    ASSERT_NE(fp, nullptr) << path;
    ASSERT_EQ(fwrite(data.data(), 1, data.size(), fp), data.size());
    fclose(fp);
}

inline bool Exists(const std::string &path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

inline std::string WithDecl(const std::string &body) { return "<?xml version=\"1.0\"?>\n" + body + "\n"; }

// The texts of all captured records in order, each after its level name if asked.
inline Texts TextsOf(const ibptest::LogCapture &cap, bool bLevel = false)
{
    Texts out;
    for (const auto &rec : cap.Records())
        out.push_back(bLevel ? rec.level + " " + rec.text : rec.text);
    return out;
}

// A document of the given body, opened from /tmp/t.xml, closed at scope end.
struct Doc {
    explicit Doc(const std::string &body)
    {
        WriteFile("/tmp/t.xml", WithDecl(body));
        h = XML_InitLensFile("/tmp/t.xml");
    }
    ~Doc()
    {
        if (h != nullptr)
            XML_Destroy(h);
    }
    Doc(const Doc &) = delete;
    Doc &operator=(const Doc &) = delete;
    XML_NODE Node(const std::string &path) const { return XML_GetNodeset(h, path.c_str()); }
    XML_HANDLE h = nullptr;
};

class XmlTest : public ::testing::Test {
protected:
    void SetUp() override { IBP_REQUIRE_ISOLATION(); }
};

}  // namespace xmltest
