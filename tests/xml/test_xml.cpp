// Opening XML documents, path lookup, the three value readers, and the argument checks of every call.
#include <mxml.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "xml_test_util.h"

using namespace xmltest;

namespace {

// Builds <cfg><v0>text0</v0><v1>text1</v1>...extra</cfg>.
template <typename Case, size_t N>
std::string Numbered(const Case (&cases)[N], const std::string &extra = "")
{
    std::string body = "<cfg>";
    for (size_t i = 0; i < N; ++i)
        body += "<v" + std::to_string(i) + ">" + cases[i].text + "</v" + std::to_string(i) + ">";
    return body + extra + "</cfg>";
}

// <d><d>...<leaf>3</leaf>...</d></d>, `levels` deep, short of `missing` end tags.
std::string Deep(int levels, int missing = 0)
{
    std::string text;
    for (int i = 0; i < levels; ++i)
        text += "<d>";
    text += "<leaf>3</leaf>";
    for (int i = missing; i < levels; ++i)
        text += "</d>";
    return text;
}

TEST_F(XmlTest, BadArgumentsAreNamedInArgumentOrder)
{
    Doc doc("<cfg><v>1</v></cfg>");
    ASSERT_NE(doc.h, nullptr);
    XML_NODE hN = doc.Node("cfg/v");
    XML_DOC_S stNoTree{};  // not freed by Destroy: it is no heap block
    XML_GET_TABLE_S astTable[1] = {};
    u32 aul[2] = {1, 1};
    ibptest::LogCapture cap;
    const struct {
        std::function<bool()> call;  // true when the call reported a failure
        const char *text;
    } cases[] = {
        {[&] { return XML_Init(nullptr, nullptr) == nullptr; }, "pcXmlFile is NULL"},
        {[&] { return XML_InitLensFile(nullptr) == nullptr; }, "pcXmlFile is NULL"},
        {[&] { XML_Destroy(nullptr); return true; }, "hHandle is invalid"},
        {[&] { XML_Destroy(&stNoTree); return true; }, "xml node is invalid"},
        {[&] { return XML_GetNodeset(nullptr, nullptr) == nullptr; }, "hHandle is invalid"},
        {[&] { return XML_GetNodeset(doc.h, nullptr) == nullptr; }, "pcNodePath is NULL"},
        {[&] { return XML_GetNodeset(&stNoTree, "cfg") == nullptr; }, "xml node is invalid"},
        {[&] { return XML_GetInt(nullptr, 4, nullptr, nullptr) == 1; }, "hNode is invalid"},
        {[&] { return XML_GetInt(hN, 4, nullptr, nullptr) == 1; }, "pulElemNum is NULL"},
        {[&] { return XML_GetInt(hN, 4, aul, nullptr) == 1; }, "pValue is NULL"},
        {[&] { return XML_GetIntArray(nullptr, 4, nullptr, aul) == 1; }, "hNode is invalid"},
        {[&] { return XML_GetIntArray(hN, 4, nullptr, aul) == 1; }, "pulElemNum is NULL"},
        {[&] { return XML_GetString(nullptr, 0, nullptr, nullptr) == 1; }, "hNode is invalid"},
        {[&] { return XML_GetString(hN, 0, nullptr, nullptr) == 1; }, "pulSize is NULL"},
        {[&] { return XML_GetString(hN, 0, aul, nullptr) == 1; }, "pValue is NULL"},
        {[&] { return XML_BatchGet(nullptr, nullptr, nullptr, 1, nullptr) == 1; }, "hHandle is invalid"},
        {[&] { return XML_BatchGet(doc.h, nullptr, nullptr, 1, nullptr) == 1; }, "pcNodePath is NULL"},
        {[&] { return XML_BatchGet(doc.h, "cfg", nullptr, 1, nullptr) == 1; }, "pstGetTable is NULL"},
        {[&] { return XML_BatchGet(doc.h, "cfg", astTable, 1, nullptr) == 1; }, "pValue is NULL"},
        {[&] { return XML_GetIntArray2D(nullptr, nullptr, 4, nullptr, nullptr) == 1; }, "hHandle is invalid"},
        {[&] { return XML_GetIntArray2D(doc.h, nullptr, 4, nullptr, nullptr) == 1; }, "pcNodePath is NULL"},
        {[&] { return XML_GetIntArray2D(doc.h, "cfg", 4, nullptr, nullptr) == 1; }, "pulElemNum is NULL"},
        {[&] { return XML_GetIntArray2D(doc.h, "cfg", 4, aul, nullptr) == 1; }, "pValue is NULL"},
        {[&] { return XML_BatchGet(doc.h, "cfg/no", astTable, 1, aul) == 1; }, "Get node set of cfg/no fail"},
        {[&] { return XML_GetIntArray2D(doc.h, "cfg/no", 4, aul, aul) == 1; }, "XML_GetNodeset cfg/no fail"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        cap.Clear();
        EXPECT_TRUE(cases[i].call());
        EXPECT_EQ(TextsOf(cap), Texts{cases[i].text});
        EXPECT_EQ(cap.Count("ERR", "BP", cases[i].text), 1u);
    }
}

TEST_F(XmlTest, OpenFailuresGiveARecordPair)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(XML_InitLensFile("/tmp/none.xml"), nullptr);
    EXPECT_EQ(TextsOf(cap), (Texts{"fopen file /tmp/none.xml fail", "xml init /tmp/none.xml fail!"}));
    EXPECT_EQ(cap.Records().back().func, "XML_InitLensFile");

    const std::string bad[] = {
        "",
        WithDecl("<cfg><a>1</a>"),       // missing end tag
        WithDecl("<cfg><a><b>1</cfg>"),  // missing nested end tags
        WithDecl("<cfg><a>1</b></cfg>"),
        std::string("<cfg>\0\x01</cfg>", 13),
        WithDecl(std::string(20000, '<')),
        WithDecl(Deep(100000, 10)),
    };
    for (const std::string &text : bad) {
        SCOPED_TRACE(text.substr(0, 60));
        cap.Clear();
        WriteFile("/tmp/bad.xml", text);
        EXPECT_EQ(XML_Init("/tmp/bad.xml", nullptr), nullptr);
        EXPECT_EQ(TextsOf(cap), (Texts{"mxmlLoadFile fail", "xml init /tmp/bad.xml fail!"}));
        EXPECT_EQ(cap.Records().back().func, "XML_Init");
    }
}

TEST_F(XmlTest, InitAndLensFileGiveTheSameDocument)
{
    // The name field keeps the first 127 characters of a longer path.
    const std::string path = "/tmp/" + std::string(140, 'n') + ".xml";
    WriteFile(path, WithDecl("<cfg><grp><leaf>41</leaf></grp></cfg>"));
    ibptest::LogCapture cap;
    for (XML_HANDLE h : {XML_Init(path.c_str(), nullptr), XML_InitLensFile(path.c_str())}) {
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(std::string(h->acFileName), path.substr(0, 127));
        XML_NODE hLeaf = XML_GetNodeset(h, "cfg/grp/leaf");  // the element, not its text node
        EXPECT_STREQ(mxmlGetElement(hLeaf), "leaf");
        EXPECT_EQ(XML_GetNodeset(h, "*/leaf"), hLeaf);
        EXPECT_EQ(XML_GetNodeset(h, "cfg/leaf"), nullptr);
        s32 lValue = 0;
        u32 ulNum = 0;
        EXPECT_EQ(XML_GetInt(hLeaf, 4, &ulNum, &lValue), 0u);
        EXPECT_EQ(lValue, 41);
        XML_Destroy(h);
    }
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();  // a missing path is no failure
}

// Each case reads node v<index> into a buffer filled with 0xA5; bytes past `bytes` stay untouched.
TEST_F(XmlTest, ReadersConvertCopyAndRefuse)
{
    const auto Int = XML_GetInt, Arr = XML_GetIntArray, Str = XML_GetString;
    const struct {
        XML_GET_VALUE_PFN get;
        u32 elemSize;
        const char *text;
        u32 num;     // *pulElemNum (capacity) on entry
        u32 numOut;  // and afterwards
        std::vector<u8> bytes;
        const char *record;  // level and text; null: success
    } cases[] = {
        {Int, 4, "41", 0, 1, {41, 0, 0, 0}, nullptr},
        {Int, 4, "0x10", 0, 1, {0x10, 0, 0, 0}, nullptr},
        {Int, 4, "010", 0, 1, {8, 0, 0, 0}, nullptr},
        {Int, 1, "-1", 0, 1, {0xFF}, nullptr},
        {Int, 2, "12ab", 0, 1, {12, 0}, nullptr},
        {Int, 3, "0x123456789", 0, 1, {0x89, 0x67, 0x45}, nullptr},
        {Int, 0, "9", 0, 1, {}, nullptr},
        {Int, 4, "ab", 0, 0, {}, "ERR strtoll fail! pcContent=v7 pcEndString=ab"},
        {Int, 4, "", 0, 0, {}, "ERR node v8 content is NULL"},
        {Int, 5, "9", 0, 0, {}, "ERR element size 5 > 4 not supported"},
        {Arr, 2, "1,2,3", 3, 3, {1, 0, 2, 0, 3, 0}, nullptr},
        {Arr, 2, "5,6,7,8", 3, 3, {5, 0, 6, 0, 7, 0}, "ERR node v11 element number > max 3"},
        {Arr, 2, "1,,0x20,,,010", 4, 3, {1, 0, 0x20, 0, 8, 0}, nullptr},
        {Arr, 1, ",,,", 4, 0, {}, nullptr},
        {Arr, 1, "1, 2", 4, 1, {1}, nullptr},  // "2" is a word of its own
        {Arr, 1, "4,x,6", 4, 4, {4}, "ERR stroll fail! node=v15 content=x"},
        {Arr, 1, "1", 0, 0, {}, "ERR node v16 element number > max 0"},
        {Arr, 1, "", 4, 4, {}, "ERR mxmlGetText v17 fail"},
        {Str, 0, "abcd", 4, 4, {'a', 'b', 'c', 'd'}, nullptr},  // no terminator fits
        {Str, 0, "ab", 4, 2, {'a', 'b', 0, 0}, nullptr},
        {Str, 0, "abcde", 4, 4, {}, "WRN output buffer not enough! 5 > 4 "},
        {Str, 0, "", 4, 4, {}, "ERR mxmlGetText v21 fail"},
    };
    Doc doc(Numbered(cases, "<count>1,2,3</count>"));
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &c = cases[i];
        SCOPED_TRACE("v" + std::to_string(i) + ": " + c.text);
        cap.Clear();
        u8 buf[8];
        memset(buf, 0xA5, sizeof(buf));
        u32 ulNum = c.num;
        EXPECT_EQ(c.get(doc.Node("cfg/v" + std::to_string(i)), c.elemSize, &ulNum, buf), c.record ? 1u : 0u);
        EXPECT_EQ(ulNum, c.numOut);
        EXPECT_EQ(TextsOf(cap, true), c.record ? Texts{c.record} : Texts{});
        std::vector<u8> expect(c.bytes);
        expect.resize(sizeof(buf), 0xA5);
        EXPECT_EQ(std::vector<u8>(buf, buf + sizeof(buf)), expect);
    }

    // Counting splits the text too: the node then reads as one element.
    u32 ulNum = 0;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/count"), 4, &ulNum, nullptr), 0u);
    EXPECT_EQ(ulNum, 3u);
    s32 al[3] = {};
    ulNum = 3;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/count"), 4, &ulNum, al), 0u);
    EXPECT_EQ(ulNum, 1u);
}

TEST_F(XmlTest, HugeTextAndDeepNestingLoad)
{
    const std::string huge(256 * 1024, '7');
    Doc doc("<cfg><h>" + huge + "</h><l>" + huge + "," + huge + "</l>" + Deep(100000) + "</cfg>");
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;
    u32 aul[4] = {};
    u32 ulNum = 0;
    EXPECT_EQ(XML_GetInt(doc.Node("*/leaf"), 4, &ulNum, aul), 0u);
    EXPECT_EQ(aul[0], 3u);
    ulNum = sizeof(aul);
    EXPECT_EQ(XML_GetString(doc.Node("cfg/h"), 0, &ulNum, aul), 1u);
    EXPECT_EQ(TextsOf(cap, true), Texts{"WRN output buffer not enough! 262144 > 16 "});
    ulNum = 2;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/l"), 4, &ulNum, aul), 0u);  // each saturated, then cut
    EXPECT_EQ(ulNum, 2u);
    EXPECT_EQ(aul[0], 0xFFFFFFFFu);
    EXPECT_EQ(aul[1], 0xFFFFFFFFu);
}

}  // namespace
