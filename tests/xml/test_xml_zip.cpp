// Documents read out of zip archives that the tests build with the zip program.
#include <cstdlib>
#include <string>

#include "xml_test_util.h"

using namespace xmltest;

namespace {

const std::string kArchive = "/tmp/arc/pack.zip";
// Fits the 127-character unzip command exactly with kArchive.
const std::string kLongestMember = std::string(75, 'm') + ".xml";

class XmlZipTest : public XmlTest {
protected:
    void SetUp() override
    {
        XmlTest::SetUp();
        if (IsSkipped())
            return;
        IBP_SKIP_IF_CLONE_VM_UNSUPPORTED();
        ASSERT_EQ(system("mkdir -p /tmp/src/sub /tmp/arc"), 0);
        WriteFile("/tmp/src/a.xml", WithDecl("<cfg><v>11</v></cfg>"));
        WriteFile("/tmp/src/sub/b_1+x-y.xml", WithDecl("<cfg><v>22</v></cfg>"));
        WriteFile("/tmp/src/bad.xml", WithDecl("<cfg><v>1</cfg>"));
        WriteFile("/tmp/src/" + kLongestMember, WithDecl("<cfg><v>33</v></cfg>"));
        WriteFile("/tmp/src/" + kLongestMember + "x", WithDecl("<cfg><v>44</v></cfg>"));
        std::string cmd = "cd /tmp/src && zip -q -r " + kArchive + " a.xml sub bad.xml " + kLongestMember +
                          " " + kLongestMember + "x";
        ASSERT_EQ(system(cmd.c_str()), 0) << "the zip program is needed: " << cmd;
    }
};

// Opens a member, reads cfg/v and checks the temporary file is gone.
s32 ReadMember(const std::string &member, const std::string &archive = kArchive)
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
    ibptest::LogCapture cap;
    EXPECT_EQ(ReadMember("a.xml"), 11);
    EXPECT_EQ(ReadMember("sub/b_1+x-y.xml"), 22);
    EXPECT_EQ(ReadMember(kLongestMember), 33);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();

    // A stale file of the member's name is overwritten, then removed.
    WriteFile("/tmp/a.xml", WithDecl("<cfg><v>99</v></cfg>"));
    EXPECT_EQ(ReadMember("a.xml"), 11);

    ASSERT_EQ(system(("cp " + kArchive + " /tmp/arc/Pack-2_v.1+x.zip").c_str()), 0);
    EXPECT_EQ(ReadMember("a.xml", "/tmp/arc/Pack-2_v.1+x.zip"), 11);
}

TEST_F(XmlZipTest, FailuresRemoveTheTemporaryFile)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(ReadMember("bad.xml"), -1);
    EXPECT_LOG(cap, "ERR", "BP", "mxmlLoadFile fail");
    EXPECT_LOG(cap, "ERR", "BP", "xml init bad.xml fail!");

    cap.Clear();
    EXPECT_EQ(ReadMember("missing.xml"), -1);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 2u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "fopen file /tmp/missing.xml fail");
    EXPECT_EQ(recs[1].text, "xml init missing.xml fail!");

    cap.Clear();
    EXPECT_EQ(ReadMember("a.xml", "/tmp/arc/none.zip"), -1);
    EXPECT_LOG(cap, "ERR", "BP", "fopen file /tmp/a.xml fail");

    // One character more than the command holds is refused, not cut.
    cap.Clear();
    EXPECT_EQ(ReadMember(kLongestMember + "x"), -1);
    EXPECT_EQ(cap.CountPrefix("unzip command for " + kLongestMember + "x in " + kArchive + " too long"), 1u)
        << cap.Dump();
}

// Names are refused before anything runs, so this needs no child process.
TEST(XmlZipNames, NamesTheShellWouldInterpretAreRefused)
{
    IBP_REQUIRE_ISOLATION();
    ibptest::LogCapture cap;
    struct Case {
        const char *member;
        const char *archive;
    };
    const Case cases[] = {
        {"a.xml;touch /tmp/pwned", "/tmp/arc/pack.zip"},
        {"$(touch /tmp/pwned)", "/tmp/arc/pack.zip"},
        {"a.xml", "/tmp/arc/pack.zip|touch /tmp/pwned"},
        {"a.xml", "`touch /tmp/pwned`"},
        {"a xml", "/tmp/arc/pack.zip"},
        {"a.xml&&touch${IFS}/tmp/pwned", "/tmp/arc/pack.zip"},
        {"*.xml", "/tmp/arc/pack.zip"},
        {"-x.xml", "/tmp/arc/pack.zip"},
        {"a.xml", "-d"},
        {"", "/tmp/arc/pack.zip"},
        {"a.xml", ""},
        {"../etc/a.xml", "/tmp/arc/pack.zip"},
        {"sub/../../a.xml", "/tmp/arc/pack.zip"},
        {"sub/", "/tmp/arc/pack.zip"},
    };
    for (const Case &c : cases) {
        cap.Clear();
        EXPECT_EQ(XML_Init(c.member, c.archive), nullptr) << c.member << " in " << c.archive;
        auto recs = cap.Records();
        ASSERT_EQ(recs.size(), 2u) << cap.Dump();
        EXPECT_EQ(recs[0].text.rfind("refuse file name ", 0), 0u) << recs[0].text;
        EXPECT_EQ(recs[1].text, std::string("xml init ") + c.member + " fail!");
    }
    EXPECT_FALSE(Exists("/tmp/pwned"));
}

}  // namespace
