// Opening XML documents (plain and zipped), path lookup, readers, batch tables, matrices; files in a private /tmp.
#include <gtest/gtest.h>
#include <mxml.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "harness/files.h"
#include "harness/log_capture.h"
#include "harness/test_env.h"
#include "ibp/isp_xml.h"

namespace {

using Texts = std::vector<std::string>;
using ibptest::WriteFile;

std::string WithDecl(const std::string &body) { return "<?xml version=\"1.0\"?>\n" + body + "\n"; }

// The records of the library's own: what Mini-XML says of a bad file is its own business, in a record of its own.
Texts TextsOf(const ibptest::LogCapture &cap)
{
    Texts out = cap.Lines();
    std::erase_if(out, [](const std::string &s) { return s.starts_with("ERR BP Mini-XML: "); });
    return out;
}

// A document of the given body, opened from /tmp/t.xml, closed at scope end.
struct Doc {
    explicit Doc(const std::string &body)
    {
        WriteFile("/tmp/t.xml", WithDecl(body));
        h = XML_InitLensFile("/tmp/t.xml");
    }
    ~Doc() { if (h != nullptr) XML_Destroy(h); }
    XML_NODE Node(const std::string &path) const { return XML_GetNodeset(h, path.c_str()); }
    XML_HANDLE h = nullptr;
};

class XmlTest : public ::testing::Test {
protected:
    void SetUp() override { IBP_REQUIRE_ISOLATION(); }
};

// <d><d>...<leaf>3</leaf>...</d></d>, `levels` deep, short of `missing` end tags.
std::string Deep(int levels, int missing = 0)
{
    std::string s;
    for (int i = 0; i < levels; ++i)
        s += "<d>";
    s += "<leaf>3</leaf>";
    for (int i = missing; i < levels; ++i)
        s += "</d>";
    return s;
}

// Null arguments are in tests/abi/test_misuse.cpp.
TEST_F(XmlTest, FailedOpensGiveARecordPair)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(XML_InitLensFile("/tmp/none.xml"), nullptr);
    EXPECT_EQ(TextsOf(cap), (Texts{"ERR BP fopen file /tmp/none.xml fail", "ERR BP xml init /tmp/none.xml fail!"}));
    // Each but the empty one with what Mini-XML says about it, in a record of its own and not on standard error.
    const std::string bad[] = {"", "cfg", WithDecl("<cfg><a>1</a>"), WithDecl("<cfg><a><b>1</cfg>"),
                               WithDecl("<cfg><a>1</b></cfg>"), WithDecl("<cfg>&amp</cfg>"),
                               std::string("<cfg>\0\x01</cfg>", 13), WithDecl(std::string(20000, '<')),
                               WithDecl(Deep(100000, 10))};
    for (const std::string &text : bad) {
        SCOPED_TRACE(text.substr(0, 60));
        cap.Clear();
        WriteFile("/tmp/bad.xml", text);
        testing::internal::CaptureStderr();
        EXPECT_EQ(XML_Init("/tmp/bad.xml", nullptr), nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(TextsOf(cap), (Texts{"ERR BP mxmlLoadFile fail", "ERR BP xml init /tmp/bad.xml fail!"}));
        EXPECT_EQ(cap.Records().size(), text.empty() ? 2u : 3u) << cap.Dump();
    }
    // Names the shell would interpret are refused before anything runs, so these need no child process.
    const auto names = ibptest::Rows("xml/data/refused_names.txt");
    ASSERT_EQ(names.size(), 13u);
    for (const auto &name : names) {
        SCOPED_TRACE(name[0] + " in " + name[1]);
        cap.Clear();
        EXPECT_EQ(XML_Init(name[0].c_str(), name[1].c_str()), nullptr);
        const Texts texts = TextsOf(cap);
        ASSERT_EQ(texts.size(), 2u) << cap.Dump();
        EXPECT_EQ(texts[0].rfind("ERR BP refuse file name ", 0), 0u) << texts[0];
        EXPECT_EQ(texts[1], "ERR BP xml init " + name[0] + " fail!");
    }
    EXPECT_NE(access("/tmp/pwned", F_OK), 0);
}

TEST_F(XmlTest, BothOpenCallsLoadLongPathsAndDeepNesting)
{
    const std::string path = "/tmp/" + std::string(140, 'n') + ".xml";
    WriteFile(path, WithDecl("<cfg><h>x</h>" + Deep(100000) + "</cfg>"));
    ibptest::LogCapture cap;
    for (XML_HANDLE h : {XML_Init(path.c_str(), nullptr), XML_InitLensFile(path.c_str())}) {
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(std::string(h->acFileName), path.substr(0, 127));  // a longer path is cut
        EXPECT_STREQ(mxmlGetElement(XML_GetNodeset(h, "cfg/h")), "h");  // the element, not its text node
        EXPECT_EQ(XML_GetNodeset(h, "cfg/leaf"), nullptr);
        s32 lValue = 0;
        u32 ulNum = 0;
        EXPECT_EQ(XML_GetInt(XML_GetNodeset(h, "*/leaf"), 4, &ulNum, &lValue), 0u);
        EXPECT_EQ(lValue, 3);
        XML_Destroy(h);
    }
    EXPECT_EQ(TextsOf(cap), Texts{});  // a missing path is no failure
}

// Node v<i> holds text i; each is read into a buffer of 0xA5 bytes that stay untouched past `bytes`.
TEST_F(XmlTest, ReadersConvertCopyAndRefuse)
{
    const auto Int = XML_GetInt, Arr = XML_GetIntArray, Str = XML_GetString;
    const std::string huge(256 * 1024, '7');
    // Reader, element size, text, capacity and count on return, bytes stored, record if any.
    const struct {
        XML_GET_VALUE_PFN get; u32 size; std::string text; u32 num, numOut; std::vector<u8> bytes; const char *rec;
    } cases[] = {
        {Int, 4, "41", 0, 1, {41, 0, 0, 0}, nullptr},
        {Int, 4, "0x10", 0, 1, {0x10, 0, 0, 0}, nullptr},
        {Int, 4, "010", 0, 1, {8, 0, 0, 0}, nullptr},
        {Int, 1, "-1", 0, 1, {0xFF}, nullptr},
        {Int, 2, "12ab", 0, 1, {12, 0}, nullptr},
        {Int, 3, "0x123456789", 0, 1, {0x89, 0x67, 0x45}, nullptr},
        {Int, 0, "9", 0, 1, {}, nullptr},
        {Int, 4, "ab", 0, 0, {}, "ERR BP strtoll fail! pcContent=v7 pcEndString=ab"},
        {Int, 4, "", 0, 0, {}, "ERR BP node v8 content is NULL"},
        {Int, 5, "9", 0, 0, {}, "ERR BP element size 5 > 4 not supported"},
        {Arr, 2, "1,2,3", 3, 3, {1, 0, 2, 0, 3, 0}, nullptr},
        {Arr, 2, "5,6,7,8", 3, 3, {5, 0, 6, 0, 7, 0}, "ERR BP node v11 element number > max 3"},
        {Arr, 2, "1,,0x20,,,010", 4, 3, {1, 0, 0x20, 0, 8, 0}, nullptr},
        {Arr, 1, ",,,", 4, 0, {}, nullptr},
        {Arr, 1, "1, 2", 4, 1, {1}, nullptr},  // "2" is a word of its own
        {Arr, 1, "4,x,6", 4, 4, {4}, "ERR BP stroll fail! node=v15 content=x"},
        {Arr, 1, "1", 0, 0, {}, "ERR BP node v16 element number > max 0"},
        {Arr, 1, "", 4, 4, {}, "ERR BP mxmlGetText v17 fail"},
        {Str, 0, "abcd", 4, 4, {'a', 'b', 'c', 'd'}, nullptr},  // no terminator fits
        {Str, 0, "ab", 4, 2, {'a', 'b', 0, 0}, nullptr},
        {Str, 0, "abcde", 4, 4, {}, "WRN BP output buffer not enough! 5 > 4 "},
        {Str, 0, "", 4, 4, {}, "ERR BP mxmlGetText v21 fail"},
        {Str, 0, huge, 8, 8, {}, "WRN BP output buffer not enough! 262144 > 8 "},
        {Arr, 4, huge + "," + huge, 2, 2, std::vector<u8>(8, 0xFF), nullptr},  // each saturated
    };
    std::string body = "<cfg><count>1,2,3</count>";
    for (size_t i = 0; i < std::size(cases); ++i)
        body += "<v" + std::to_string(i) + ">" + cases[i].text + "</v" + std::to_string(i) + ">";
    Doc doc(body + "</cfg>");
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &c = cases[i];
        SCOPED_TRACE("v" + std::to_string(i) + ": " + c.text.substr(0, 40));
        cap.Clear();
        std::vector<u8> buf(8, 0xA5), expect(c.bytes);
        u32 ulNum = c.num;
        EXPECT_EQ(c.get(doc.Node("cfg/v" + std::to_string(i)), c.size, &ulNum, buf.data()), c.rec ? 1u : 0u);
        EXPECT_EQ(ulNum, c.numOut);
        EXPECT_EQ(TextsOf(cap), c.rec ? Texts{c.rec} : Texts{});
        expect.resize(buf.size(), 0xA5);
        EXPECT_EQ(buf, expect);
    }
    // Counting splits the text too: the node then reads as one element.
    s32 al[3] = {};
    u32 ulNum = 0;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/count"), 4, &ulNum, nullptr), 0u);
    EXPECT_EQ(ulNum, 3u);
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/count"), 4, &ulNum, al), 0u);
    EXPECT_EQ(ulNum, 1u);
}

struct Cfg { s32 lX, lY; u16 ausArr[3]; char szName[16]; };
constexpr Cfg kInitial = {-1, -2, {9, 9, 9}, "init"};

auto Fields(const Cfg &c) { return std::tuple(c.lX, c.lY, c.ausArr[0], c.ausArr[1], c.ausArr[2], std::string(c.szName)); }

XML_GET_TABLE_S Row(const char *pcName, XML_GET_VALUE_PFN pfnGet, size_t ulOffset, s32 lSize, s32 lElemSize)
{
    return XML_GET_TABLE_S{0xDEAD, pcName, pfnGet, static_cast<u32>(ulOffset), lSize, lElemSize, 0xBEEF};
}

TEST_F(XmlTest, BatchFillsFieldsInFileOrderUntilAChildFails)
{
    using Table = std::vector<XML_GET_TABLE_S>;
    const Table kTable = {Row("x", XML_GetInt, offsetof(Cfg, lX), 4, 4), Row("y", XML_GetInt, offsetof(Cfg, lY), 4, 4),
                          Row("arr", XML_GetIntArray, offsetof(Cfg, ausArr), 6, 2),
                          Row("name", XML_GetString, offsetof(Cfg, szName), 16, 1)};
    // Rows for one name: the first has no getter and is passed over before its zero size counts.
    const Table twoX = {Row("x", nullptr, offsetof(Cfg, lY), 4, 0), kTable[0]};
    const Table zeroX = {Row("x", XML_GetInt, offsetof(Cfg, lY), 4, 0), kTable[0]};
    // INT_MIN / -1 does not fit 32 bits; the getter then refuses the element size.
    const Table minX = {Row("x", XML_GetInt, offsetof(Cfg, lX), INT_MIN, -1)};
    const char *const kStop = "ERR BP BatchGetMatch fail! pcNodePath=cfg";
    const Cfg kX6 = {6, -2, {9, 9, 9}, "init"};
    const struct { const Table &table; const char *children; Cfg expect; Texts records; } cases[] = {
        {kTable, "<x>1</x><y>0x20</y><arr>4,5,6</arr><name>cam0</name>", {1, 32, {4, 5, 6}, "cam0"}, {}},
        // No element for arr and name: the initial values stand.
        {kTable, "<!-- y first --><y>7</y>\n <x>-3</x>", {-3, 7, {9, 9, 9}, "init"}, {}},
        {kTable, "<x>1</x><x>6</x>", kX6, {}},
        {kTable, "<x>1</x><z>5</z><y>2</y>", {1, -2, {9, 9, 9}, "init"}, {"ERR BP Get node z content fail", kStop}},
        {kTable, "<name>toolongforsixteen!</name><x>1</x>", kInitial,
         {"WRN BP output buffer not enough! 18 > 16 ", "ERR BP Get value from node name fail", kStop}},
        {kTable, "<arr>1,2,3,4</arr><x>1</x>", {-1, -2, {1, 2, 3}, "init"},
         {"ERR BP node arr element number > max 3", "ERR BP Get value from node arr fail", kStop}},
        {twoX, "<x>6</x>", kX6, {}},
        {zeroX, "<x>6</x>", kInitial, {"ERR BP Element size is zero", kStop}},
        {minX, "<x>6</x>", kInitial,
         {"ERR BP element size 4294967295 > 4 not supported", "ERR BP Get value from node x fail", kStop}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.children);
        Doc doc("<cfg>" + std::string(c.children) + "</cfg>");
        ibptest::LogCapture cap;
        Cfg st = kInitial;
        // A stopped walk still gives 0.
        EXPECT_EQ(XML_BatchGet(doc.h, "cfg", c.table.data(), static_cast<u32>(c.table.size()), &st), 0u);
        EXPECT_EQ(Fields(st), Fields(c.expect));
        EXPECT_EQ(TextsOf(cap), c.records);
    }
}

TEST_F(XmlTest, ShortAndLongRowsEndTheMatrix)
{
    // Rows, columns, maximum rows and element size; rows read, elements stored row after row (the rest stays 0).
    const struct { const char *rows; u32 cols, maxRows, size, rowsRead; std::vector<u32> stored; Texts recs; } cases[] = {
        {"<r>1,2,3</r><!-- c --><q>4,5,0x6</q>", 3, 2, 4, 2, {1, 2, 3, 4, 5, 6}, {}},
        {"<r>1,2</r><r>-1,0x17f</r>", 2, 3, 1, 2, {1, 2, 0xFF, 0x7F}, {}},
        {"<r>1,2,3</r><r>4,5,6</r><r>7,8,9</r>", 3, 2, 2, 2, {1, 2, 3, 4, 5, 6}, {"WRN BP real row num 2 >= 2"}},
        {"", 3, 2, 4, 0, {}, {}},
        {"<r>1,2,3</r><r>4,5</r><r>7,8,9</r>", 3, 4, 4, 1, {1, 2, 3, 4, 5},
         {"ERR BP Array element num 2 not equal to 3"}},
        {"<r>1,2,3,4</r><r>5,6,7</r>", 3, 4, 4, 0, {1, 2, 3},
         {"ERR BP node r element number > max 3", "ERR BP XML_GetIntArray r fail"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.rows);
        Doc doc("<m>" + std::string(c.rows) + "</m>");
        ibptest::LogCapture cap;
        u8 auc[48] = {};
        u32 aulNum[2] = {c.cols, c.maxRows};
        EXPECT_EQ(XML_GetIntArray2D(doc.h, "m", c.size, aulNum, auc), 0u);
        EXPECT_EQ(aulNum[0], c.cols);
        EXPECT_EQ(aulNum[1], c.rowsRead);
        std::vector<u32> got(sizeof(auc) / c.size), expect(c.stored);
        for (size_t j = 0; j < got.size(); ++j)
            memcpy(&got[j], auc + j * c.size, c.size);
        expect.resize(got.size(), 0);
        EXPECT_EQ(got, expect);
        EXPECT_EQ(TextsOf(cap), c.recs);
    }
}

TEST_F(XmlTest, ZipMembersAreReadAndTheTemporaryFileRemoved)
{
    IBP_SKIP_IF_CLONE_VM_UNSUPPORTED();  // ISP_system clones
    // The longest member fills the 127 characters of the unzip command.
    const std::string kArc = "/tmp/arc/pack.zip", kLongest = std::string(75, 'm') + ".xml";
    ASSERT_EQ(system("mkdir -p /tmp/src/sub /tmp/arc"), 0);
    std::string cmd = "cd /tmp/src && zip -q -r " + kArc;
    for (const auto &[name, body] : {std::pair<std::string, const char *>{"a.xml", "<cfg><v>11</v></cfg>"},
                                     {"sub/b_1+x-y.xml", "<cfg><v>22</v></cfg>"}, {kLongest, "<cfg><v>33</v></cfg>"},
                                     {"bad.xml", "<cfg><v>1</cfg>"}}) {
        WriteFile("/tmp/src/" + name, WithDecl(body));
        cmd += " " + name;
    }
    ASSERT_EQ(system(cmd.c_str()), 0) << "the zip program is needed: " << cmd;
    const std::string kTooLong = kLongest + "x";  // refused rather than cut
    const struct { std::string member, archive; s32 value; Texts records; } cases[] = {
        {"a.xml", kArc, 11, {}},
        {"sub/b_1+x-y.xml", kArc, 22, {}},
        {kLongest, kArc, 33, {}},
        {"bad.xml", kArc, -1, {"ERR BP mxmlLoadFile fail", "ERR BP xml init bad.xml fail!"}},
        {"missing.xml", kArc, -1, {"ERR BP fopen file /tmp/missing.xml fail", "ERR BP xml init missing.xml fail!"}},
        {"a.xml", "/tmp/arc/none.zip", -1, {"ERR BP fopen file /tmp/a.xml fail", "ERR BP xml init a.xml fail!"}},
        {kTooLong, kArc, -1,
         {"ERR BP unzip command for " + kTooLong + " in " + kArc + " too long",
          "ERR BP xml init " + kTooLong + " fail!"}},
    };
    WriteFile("/tmp/a.xml", WithDecl("<cfg><v>99</v></cfg>"));  // stale: overwritten, then removed
    for (const auto &c : cases) {
        SCOPED_TRACE(c.member + " in " + c.archive);
        ibptest::LogCapture cap;
        XML_HANDLE h = XML_Init(c.member.c_str(), c.archive.c_str());
        EXPECT_NE(access(("/tmp/" + c.member).c_str(), F_OK), 0) << "temporary file left behind";
        s32 lValue = -1;
        u32 ulNum = 0;
        if (h != nullptr) {
            EXPECT_EQ(std::string(h->acFileName), "/tmp/" + c.member);
            EXPECT_EQ(XML_GetInt(XML_GetNodeset(h, "cfg/v"), 4, &ulNum, &lValue), 0u);
            XML_Destroy(h);
        }
        EXPECT_EQ(lValue, c.value);
        EXPECT_EQ(TextsOf(cap), c.records);
    }
}

}  // namespace
