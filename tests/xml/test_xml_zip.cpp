// Documents read out of zip archives that the tests build with the zip program.
#include <cstdlib>
#include <string>

#include "xml_test_util.h"

using namespace xmltest;

namespace {

const std::string kArchive = "/tmp/arc/pack.zip";
// With kArchive this fills the 127 characters of the unzip command exactly.
const std::string kLongest = std::string(75, 'm') + ".xml";

class XmlZipTest : public XmlTest {
protected:
    void SetUp() override
    {
        XmlTest::SetUp();
        if (IsSkipped())
            return;
        IBP_SKIP_IF_CLONE_VM_UNSUPPORTED();  // ISP_system clones
        ASSERT_EQ(system("mkdir -p /tmp/src/sub /tmp/arc"), 0);
        std::string cmd = "cd /tmp/src && zip -q -r " + kArchive;
        for (const auto &[name, body] : {std::pair<std::string, const char *>{"a.xml", "<cfg><v>11</v></cfg>"},
                                         {"sub/b_1+x-y.xml", "<cfg><v>22</v></cfg>"},
                                         {kLongest, "<cfg><v>33</v></cfg>"},
                                         {"bad.xml", "<cfg><v>1</cfg>"}}) {
            WriteFile("/tmp/src/" + name, WithDecl(body));
            cmd += " " + name;
        }
        ASSERT_EQ(system(cmd.c_str()), 0) << "the zip program is needed: " << cmd;
    }
};

// Opens a member and reads cfg/v, -1 when the open fails; the temporary file must be gone either way.
s32 ReadMember(const std::string &member, const std::string &archive)
{
    XML_HANDLE h = XML_Init(member.c_str(), archive.c_str());
    EXPECT_FALSE(Exists("/tmp/" + member)) << "temporary file left behind";
    if (h == nullptr)
        return -1;
    EXPECT_EQ(std::string(h->acFileName), "/tmp/" + member);
    s32 lValue = -1;
    u32 ulNum = 0;
    EXPECT_EQ(XML_GetInt(XML_GetNodeset(h, "cfg/v"), 4, &ulNum, &lValue), 0u);
    XML_Destroy(h);
    return lValue;
}

TEST_F(XmlZipTest, ReadsMembersAndRemovesTheTemporaryFile)
{
    const std::string kTooLong = kLongest + "x";  // refused rather than cut
    const struct {
        std::string member, archive;
        s32 value;
        Texts records;
    } cases[] = {
        {"a.xml", kArchive, 11, {}},
        {"sub/b_1+x-y.xml", kArchive, 22, {}},
        {kLongest, kArchive, 33, {}},
        {"bad.xml", kArchive, -1, {"mxmlLoadFile fail", "xml init bad.xml fail!"}},
        {"missing.xml", kArchive, -1, {"fopen file /tmp/missing.xml fail", "xml init missing.xml fail!"}},
        {"a.xml", "/tmp/arc/none.zip", -1, {"fopen file /tmp/a.xml fail", "xml init a.xml fail!"}},
        {kTooLong, kArchive, -1,
         {"unzip command for " + kTooLong + " in " + kArchive + " too long", "xml init " + kTooLong + " fail!"}},
    };
    WriteFile("/tmp/a.xml", WithDecl("<cfg><v>99</v></cfg>"));  // stale: overwritten, then removed
    for (const auto &c : cases) {
        SCOPED_TRACE(c.member + " in " + c.archive);
        ibptest::LogCapture cap;
        EXPECT_EQ(ReadMember(c.member, c.archive), c.value);
        EXPECT_EQ(TextsOf(cap), c.records);
    }
}

// Names are refused before anything runs, so this needs no child process.
TEST(XmlZipNames, NamesTheShellWouldInterpretAreRefused)
{
    IBP_REQUIRE_ISOLATION();
    const std::pair<const char *, const char *> cases[] = {
        {"a.xml;touch /tmp/pwned", "/tmp/p.zip"}, {"$(touch /tmp/pwned)", "/tmp/p.zip"},
        {"a.xml", "/tmp/p.zip|touch /tmp/pwned"}, {"a.xml", "`touch /tmp/pwned`"},
        {"a.xml&&touch${IFS}/tmp/pwned", "/tmp/p.zip"}, {"a xml", "/tmp/p.zip"},
        {"*.xml", "/tmp/p.zip"}, {"-x.xml", "/tmp/p.zip"}, {"a.xml", "-d"},
        {"", "/tmp/p.zip"}, {"a.xml", ""}, {"sub/../../a.xml", "/tmp/p.zip"}, {"sub/", "/tmp/p.zip"},
    };
    for (const auto &[member, archive] : cases) {
        SCOPED_TRACE(std::string(member) + " in " + archive);
        ibptest::LogCapture cap;
        EXPECT_EQ(XML_Init(member, archive), nullptr);
        const Texts texts = TextsOf(cap);
        ASSERT_EQ(texts.size(), 2u) << cap.Dump();
        EXPECT_EQ(texts[0].rfind("refuse file name ", 0), 0u) << texts[0];
        EXPECT_EQ(texts[1], std::string("xml init ") + member + " fail!");
    }
    EXPECT_FALSE(Exists("/tmp/pwned"));
}

}  // namespace
