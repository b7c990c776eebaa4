// Opening XML documents, path lookup and the three value readers.
#include <mxml.h>

#include <cstring>
#include <string>
#include <vector>

#include "xml_test_util.h"

using namespace xmltest;

namespace {

class XmlDocTest : public XmlTest {};
class XmlReadTest : public XmlTest {};

TEST_F(XmlDocTest, OpenFailuresLogAndReturnNull)
{
    ibptest::LogCapture cap;
    EXPECT_EQ(XML_Init(nullptr, nullptr), nullptr);
    EXPECT_EQ(XML_InitLensFile(nullptr), nullptr);
    EXPECT_EQ(cap.Count("ERR", "BP", "pcXmlFile is NULL"), 2u);

    cap.Clear();
    EXPECT_EQ(XML_InitLensFile("/tmp/none.xml"), nullptr);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 2u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "fopen file /tmp/none.xml fail");
    EXPECT_EQ(recs[1].text, "xml init /tmp/none.xml fail!");
    EXPECT_EQ(recs[1].func, "XML_InitLensFile");
    EXPECT_EQ(recs[1].level, "ERR");

    // Malformed files: each one a failure record pair, nothing left open.
    const std::vector<std::string> bad = {
        "",                                               // empty
        WithDecl("<cfg><a>1</a>"),                        // missing end tag
        "<cfg><a>1</a>",                                  // and without a declaration
        WithDecl("<cfg><a><b>1</cfg>"),                   // missing nested end tags
        WithDecl("<cfg><a>1</b></cfg>"),                  // mismatched end tag
        WithDecl("<cfg a=\"1></cfg>"),                    // open attribute
        std::string("<cfg>\0\x01</cfg>", 13),             // control characters
        WithDecl(std::string(20000, '<')),                // tag soup
    };
    for (const std::string &text : bad) {
        cap.Clear();
        WriteFile("/tmp/bad.xml", text);
        EXPECT_EQ(XML_Init("/tmp/bad.xml", nullptr), nullptr) << text.substr(0, 40);
        recs = cap.Records();
        ASSERT_EQ(recs.size(), 2u) << cap.Dump();
        EXPECT_EQ(recs[0].text, "mxmlLoadFile fail");
        EXPECT_EQ(recs[1].text, "xml init /tmp/bad.xml fail!");
        EXPECT_EQ(recs[1].func, "XML_Init");
    }
}

TEST_F(XmlDocTest, InitAndLensFileGiveTheSameDocument)
{
    WriteFile("/tmp/same.xml", WithDecl("<cfg><v>41</v><w>x</w></cfg>"));
    XML_HANDLE hA = XML_Init("/tmp/same.xml", nullptr);
    XML_HANDLE hB = XML_InitLensFile("/tmp/same.xml");
    ASSERT_NE(hA, nullptr);
    ASSERT_NE(hB, nullptr);
    EXPECT_STREQ(hA->acFileName, "/tmp/same.xml");
    EXPECT_STREQ(hB->acFileName, "/tmp/same.xml");
    for (XML_HANDLE h : {hA, hB}) {
        s32 lValue = 0;
        u32 ulNum = 0;
        ASSERT_EQ(XML_GetInt(XML_GetNodeset(h, "cfg/v"), 4, &ulNum, &lValue), 0u);
        EXPECT_EQ(lValue, 41);
    }
    XML_Destroy(hA);
    XML_Destroy(hB);

    // A path longer than the name field is kept as its first 127 characters.
    std::string longPath = "/tmp/" + std::string(140, 'n') + ".xml";
    WriteFile(longPath, WithDecl("<cfg/>"));
    XML_HANDLE hLong = XML_Init(longPath.c_str(), nullptr);
    ASSERT_NE(hLong, nullptr);
    EXPECT_EQ(std::string(hLong->acFileName), longPath.substr(0, 127));
    XML_Destroy(hLong);
}

TEST_F(XmlDocTest, DestroyRefusesBadHandles)
{
    ibptest::LogCapture cap;
    XML_Destroy(nullptr);
    EXPECT_LOG(cap, "ERR", "BP", "hHandle is invalid");

    // A record without a tree is not freed: it may not even be a heap block.
    XML_DOC_S stDoc{};
    XML_Destroy(&stDoc);
    EXPECT_LOG(cap, "ERR", "BP", "xml node is invalid");
    EXPECT_EQ(XML_GetNodeset(&stDoc, "a"), nullptr);
    EXPECT_EQ(cap.Count("ERR", "BP", "xml node is invalid"), 2u);
}

TEST_F(XmlDocTest, NodesetNamesTheElement)
{
    Doc doc("<cfg><grp><leaf>5</leaf><empty/></grp><leaf2>a</leaf2></cfg>");
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;

    XML_NODE hLeaf = doc.Node("cfg/grp/leaf");
    ASSERT_NE(hLeaf, nullptr);
    EXPECT_EQ(mxmlGetType(hLeaf), MXML_ELEMENT);
    EXPECT_STREQ(mxmlGetElement(hLeaf), "leaf");
    EXPECT_STREQ(mxmlGetElement(doc.Node("cfg/grp")), "grp");
    EXPECT_STREQ(mxmlGetElement(doc.Node("cfg/grp/empty")), "empty");
    EXPECT_EQ(doc.Node("*/leaf"), hLeaf);
    EXPECT_EQ(doc.Node("cfg/nothing"), nullptr);
    EXPECT_EQ(doc.Node("cfg/leaf"), nullptr);  // not a child of cfg
    EXPECT_EQ(doc.Node(""), nullptr);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();

    // Arguments are tested in order: the first bad one is the only record.
    EXPECT_EQ(XML_GetNodeset(nullptr, nullptr), nullptr);
    EXPECT_EQ(XML_GetNodeset(doc.h, nullptr), nullptr);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 2u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "hHandle is invalid");
    EXPECT_EQ(recs[1].text, "pcNodePath is NULL");
}

TEST_F(XmlReadTest, IntegersInEveryNotation)
{
    struct Case {
        const char *text;
        u32 size;
        u32 expect;  // low-order `size` bytes are compared
    };
    const Case cases[] = {
        {"41", 4, 41},
        {"0x10", 4, 16},
        {"0X1f", 4, 31},
        {"010", 4, 8},
        {"-1", 1, 0xFF},
        {"-1", 2, 0xFFFF},
        {"-0x10", 4, 0xFFFFFFF0u},
        {"+300", 1, 300 & 0xFF},
        {"12ab", 4, 12},
        {"7 8", 4, 7},  // only the first word is the value
        {"0x123456789", 4, 0x23456789},
        {"99999999999999999999", 4, 0xFFFFFFFFu},  // saturated, then cut
        {"0x1234", 3, 0x1234},
    };
    std::string body = "<cfg>";
    for (size_t i = 0; i < std::size(cases); ++i)
        body += "<v" + std::to_string(i) + ">" + cases[i].text + "</v" + std::to_string(i) + ">";
    Doc doc(body + "</cfg>");
    ASSERT_NE(doc.h, nullptr);

    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[i];
        u8 buf[8];
        memset(buf, 0xA5, sizeof(buf));
        u32 ulNum = 77;
        std::string path = "cfg/v" + std::to_string(i);
        ASSERT_EQ(XML_GetInt(doc.Node(path.c_str()), c.size, &ulNum, buf), 0u) << c.text;
        EXPECT_EQ(ulNum, 1u) << c.text;
        u32 got = 0;
        memcpy(&got, buf, c.size);
        EXPECT_EQ(got, c.expect & (c.size == 4 ? 0xFFFFFFFFu : (1u << (8 * c.size)) - 1)) << c.text;
        for (size_t j = c.size; j < sizeof(buf); ++j)
            EXPECT_EQ(buf[j], 0xA5) << c.text << " wrote past its width at byte " << j;
    }
}

TEST_F(XmlReadTest, IntegerFailures)
{
    Doc doc("<cfg><ab>ab</ab><none></none><blank> </blank><ok>9</ok></cfg>");
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;
    s32 lValue = 5;
    u32 ulNum = 0;

    EXPECT_EQ(XML_GetInt(doc.Node("cfg/ab"), 4, &ulNum, &lValue), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "strtoll fail! pcContent=ab pcEndString=ab");
    EXPECT_EQ(XML_GetInt(doc.Node("cfg/none"), 4, &ulNum, &lValue), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "node none content is NULL");
    EXPECT_EQ(XML_GetInt(doc.Node("cfg/blank"), 4, &ulNum, &lValue), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "strtoll fail! pcContent=blank pcEndString=");
    EXPECT_EQ(XML_GetInt(doc.Node("cfg/ok"), 5, &ulNum, &lValue), 1u);
    EXPECT_EQ(cap.CountPrefix("element size 5 > 4"), 1u) << cap.Dump();
    EXPECT_EQ(lValue, 5);
    EXPECT_EQ(ulNum, 0u);

    // Width 0 copies nothing but succeeds.
    EXPECT_EQ(XML_GetInt(doc.Node("cfg/ok"), 0, &ulNum, &lValue), 0u);
    EXPECT_EQ(lValue, 5);
    EXPECT_EQ(ulNum, 1u);

    cap.Clear();
    EXPECT_EQ(XML_GetInt(nullptr, 4, nullptr, nullptr), 1u);
    EXPECT_EQ(XML_GetInt(doc.Node("cfg/ok"), 4, nullptr, nullptr), 1u);
    EXPECT_EQ(XML_GetInt(doc.Node("cfg/ok"), 4, &ulNum, nullptr), 1u);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 3u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "hNode is invalid");
    EXPECT_EQ(recs[1].text, "pulElemNum is NULL");
    EXPECT_EQ(recs[2].text, "pValue is NULL");
}

TEST_F(XmlReadTest, IntArraysHonourCapacityAndSkipEmptyFields)
{
    Doc doc(
        "<cfg><three>1,2,3</three><four>5,6,7,8</four><gaps>1,,0x20,,,010</gaps>"
        "<commas>,,,</commas><count>1,2,3</count><blank>1, 2</blank><bad>4,x,6</bad>"
        "<zero>1</zero><none></none></cfg>");
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;

    s32 al[4] = {0, 0, 0, -9};
    u32 ulNum = 3;
    ASSERT_EQ(XML_GetIntArray(doc.Node("cfg/three"), 4, &ulNum, al), 0u);
    EXPECT_EQ(ulNum, 3u);
    EXPECT_EQ(al[0], 1);
    EXPECT_EQ(al[2], 3);
    EXPECT_EQ(al[3], -9);

    // One field too many: the first three stay stored, the count unchanged.
    ulNum = 3;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/four"), 4, &ulNum, al), 1u);
    EXPECT_EQ(ulNum, 3u);
    EXPECT_EQ(al[0], 5);
    EXPECT_EQ(al[2], 7);
    EXPECT_EQ(al[3], -9);
    EXPECT_LOG(cap, "ERR", "BP", "node four element number > max 3");

    u16 aus[4] = {0, 0, 0, 0xBEEF};
    ulNum = 4;
    ASSERT_EQ(XML_GetIntArray(doc.Node("cfg/gaps"), 2, &ulNum, aus), 0u);
    EXPECT_EQ(ulNum, 3u);
    EXPECT_EQ(aus[0], 1);
    EXPECT_EQ(aus[1], 0x20);
    EXPECT_EQ(aus[2], 8);
    EXPECT_EQ(aus[3], 0xBEEF);

    ulNum = 4;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/commas"), 4, &ulNum, al), 0u);
    EXPECT_EQ(ulNum, 0u);

    // Counting splits the text too: the node then reads as one element.
    ulNum = 0;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/count"), 4, &ulNum, nullptr), 0u);
    EXPECT_EQ(ulNum, 3u);
    ulNum = 4;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/count"), 4, &ulNum, al), 0u);
    EXPECT_EQ(ulNum, 1u);

    ulNum = 4;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/blank"), 4, &ulNum, al), 0u);
    EXPECT_EQ(ulNum, 1u);

    ulNum = 4;
    al[0] = 0;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/bad"), 4, &ulNum, al), 1u);
    EXPECT_EQ(ulNum, 4u);
    EXPECT_EQ(al[0], 4);
    EXPECT_LOG(cap, "ERR", "BP", "stroll fail! node=bad content=x");

    ulNum = 0;
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/zero"), 4, &ulNum, al), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "node zero element number > max 0");
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/none"), 4, &ulNum, al), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "mxmlGetText none fail");

    cap.Clear();
    EXPECT_EQ(XML_GetIntArray(nullptr, 4, nullptr, al), 1u);
    EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/zero"), 4, nullptr, al), 1u);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 2u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "hNode is invalid");
    EXPECT_EQ(recs[1].text, "pulElemNum is NULL");
}

TEST_F(XmlReadTest, StringsUpToExactlyTheCapacity)
{
    Doc doc("<cfg><four>abcd</four><five>abcde</five><two>ab</two><none/></cfg>");
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;

    char buf[6];
    memset(buf, '#', sizeof(buf));
    u32 ulSize = 4;
    ASSERT_EQ(XML_GetString(doc.Node("cfg/four"), 0, &ulSize, buf), 0u);
    EXPECT_EQ(ulSize, 4u);
    EXPECT_EQ(std::string(buf, 6), "abcd##");  // no terminator fits

    memset(buf, '#', sizeof(buf));
    ulSize = 4;
    EXPECT_EQ(XML_GetString(doc.Node("cfg/five"), 0, &ulSize, buf), 1u);
    EXPECT_EQ(ulSize, 4u);
    EXPECT_EQ(std::string(buf, 6), "######");
    EXPECT_LOG(cap, "WRN", "BP", "output buffer not enough! 5 > 4 ");

    ulSize = 4;
    ASSERT_EQ(XML_GetString(doc.Node("cfg/two"), 0, &ulSize, buf), 0u);
    EXPECT_EQ(ulSize, 2u);
    EXPECT_EQ(std::string(buf, 6), std::string("ab\0\0##", 6));

    EXPECT_EQ(XML_GetString(doc.Node("cfg/none"), 0, &ulSize, buf), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "mxmlGetText none fail");

    cap.Clear();
    EXPECT_EQ(XML_GetString(nullptr, 0, nullptr, nullptr), 1u);
    EXPECT_EQ(XML_GetString(doc.Node("cfg/two"), 0, nullptr, nullptr), 1u);
    EXPECT_EQ(XML_GetString(doc.Node("cfg/two"), 0, &ulSize, nullptr), 1u);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 3u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "hNode is invalid");
    EXPECT_EQ(recs[1].text, "pulSize is NULL");
    EXPECT_EQ(recs[2].text, "pValue is NULL");
}

TEST_F(XmlReadTest, HostileFilesLoadOrFailCleanly)
{
    constexpr int kDepth = 100000;
    std::string deep;
    for (int i = 0; i < kDepth; ++i)
        deep += "<d>";
    deep += "<leaf>3</leaf>";
    for (int i = 0; i < kDepth; ++i)
        deep += "</d>";
    {
        Doc doc(deep);
        ASSERT_NE(doc.h, nullptr);
        s32 lValue = 0;
        u32 ulNum = 0;
        EXPECT_EQ(XML_GetInt(doc.Node("*/leaf"), 4, &ulNum, &lValue), 0u);
        EXPECT_EQ(lValue, 3);
    }
    {
        ibptest::LogCapture cap;
        Doc doc(deep.substr(0, deep.size() - 4 * 10));  // ten end tags short
        EXPECT_EQ(doc.h, nullptr);
        EXPECT_LOG(cap, "ERR", "BP", "mxmlLoadFile fail");
    }
    {
        const std::string huge(256 * 1024, '7');
        Doc doc("<cfg><h>" + huge + "</h><l>" + huge + "," + huge + "</l></cfg>");
        ASSERT_NE(doc.h, nullptr);
        ibptest::LogCapture cap;
        char buf[16];
        u32 ulSize = sizeof(buf);
        EXPECT_EQ(XML_GetString(doc.Node("cfg/h"), 0, &ulSize, buf), 1u);
        EXPECT_LOG(cap, "WRN", "BP", "output buffer not enough! 262144 > 16 ");
        u32 ulValue = 0;
        u32 ulNum = 0;
        EXPECT_EQ(XML_GetInt(doc.Node("cfg/h"), 4, &ulNum, &ulValue), 0u);
        EXPECT_EQ(ulValue, 0xFFFFFFFFu);
        u32 aul[2] = {0, 0};
        ulNum = 2;
        EXPECT_EQ(XML_GetIntArray(doc.Node("cfg/l"), 4, &ulNum, aul), 0u);
        EXPECT_EQ(ulNum, 2u);
        EXPECT_EQ(aul[1], 0xFFFFFFFFu);
    }
}

}  // namespace
