// Table-driven batch reads into a record, and integer matrices.
#include <mxml.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "xml_test_util.h"

using namespace xmltest;

namespace {

struct Cfg {
    s32 lX;
    s32 lY;
    u16 ausArr[3];
    char szName[16];
};

constexpr Cfg kInitial = {-1, -2, {9, 9, 9}, "init"};

XML_GET_TABLE_S Row(const char *pcName, XML_GET_VALUE_PFN pfnGet, size_t ulOffset, s32 lSize, s32 lElemSize)
{
    return XML_GET_TABLE_S{0xDEAD, pcName, pfnGet, static_cast<u32>(ulOffset), lSize, lElemSize, 0xBEEF};
}

const std::vector<XML_GET_TABLE_S> kTable = {
    Row("x", XML_GetInt, offsetof(Cfg, lX), 4, 4),
    Row("y", XML_GetInt, offsetof(Cfg, lY), 4, 4),
    Row("arr", XML_GetIntArray, offsetof(Cfg, ausArr), 6, 2),
    Row("name", XML_GetString, offsetof(Cfg, szName), 16, 1),
};

// Runs a batch over <cfg> with the given children.
u32 Batch(const std::string &children, const std::vector<XML_GET_TABLE_S> &table, Cfg *pstCfg)
{
    Doc doc("<cfg>" + children + "</cfg>");
    EXPECT_NE(doc.h, nullptr);
    return XML_BatchGet(doc.h, "cfg", table.data(), static_cast<u32>(table.size()), pstCfg);
}

// A getter that records what it was handed.
struct SpyCall {
    std::string name;
    u32 elemSize;
    u32 count;
    void *dst;
};
std::vector<SpyCall> g_calls;
u32 SpyGet(XML_NODE hNode, u32 ulElemSize, u32 *pulElemNum, void *pValue)
{
    g_calls.push_back({mxmlGetElement(hNode), ulElemSize, *pulElemNum, pValue});
    *pulElemNum = 12345;
    return 0;
}

class XmlBatchTest : public XmlTest {
protected:
    void SetUp() override
    {
        XmlTest::SetUp();
        g_calls.clear();
    }
};
class XmlMatrixTest : public XmlTest {};

TEST_F(XmlBatchTest, FillsFieldsInTheFileOrder)
{
    ibptest::LogCapture cap;
    Cfg st = kInitial;
    EXPECT_EQ(Batch("<x>1</x><y>0x20</y><arr>4,5,6</arr><name>cam0</name>", kTable, &st), 0u);
    EXPECT_EQ(st.lX, 1);
    EXPECT_EQ(st.lY, 32);
    EXPECT_EQ(st.ausArr[0], 4);
    EXPECT_EQ(st.ausArr[2], 6);
    EXPECT_STREQ(st.szName, "cam0");

    st = kInitial;
    EXPECT_EQ(Batch("<!-- y first --><y>7</y>\n <x>-3</x>", kTable, &st), 0u);
    EXPECT_EQ(st.lX, -3);
    EXPECT_EQ(st.lY, 7);
    EXPECT_STREQ(st.szName, "init");  // no element: the initial value stands
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();

    // The same name twice is read twice into the same field.
    st = kInitial;
    EXPECT_EQ(Batch("<x>1</x><x>2</x>", kTable, &st), 0u);
    EXPECT_EQ(st.lX, 2);
}

TEST_F(XmlBatchTest, UnknownOrFailingChildStopsTheWalk)
{
    ibptest::LogCapture cap;
    Cfg st = kInitial;
    EXPECT_EQ(Batch("<x>1</x><z>5</z><y>2</y>", kTable, &st), 0u);
    EXPECT_EQ(st.lX, 1);
    EXPECT_EQ(st.lY, kInitial.lY);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 2u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "Get node z content fail");
    EXPECT_EQ(recs[0].func, "BatchGetMatch");
    EXPECT_EQ(recs[1].text, "BatchGetMatch fail! pcNodePath=cfg");
    EXPECT_EQ(recs[1].func, "XML_BatchGet");

    // A getter's failure: its own record, then the two of the batch.
    cap.Clear();
    st = kInitial;
    EXPECT_EQ(Batch("<name>toolongforsixteen!</name><x>1</x>", kTable, &st), 0u);
    EXPECT_STREQ(st.szName, "init");
    EXPECT_EQ(st.lX, kInitial.lX);
    recs = cap.Records();
    ASSERT_EQ(recs.size(), 3u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "output buffer not enough! 18 > 16 ");
    EXPECT_EQ(recs[1].text, "Get value from node name fail");
    EXPECT_EQ(recs[2].text, "BatchGetMatch fail! pcNodePath=cfg");

    // An array with more elements than the field holds stops after the field.
    cap.Clear();
    st = kInitial;
    EXPECT_EQ(Batch("<arr>1,2,3,4</arr>", kTable, &st), 0u);
    EXPECT_EQ(st.ausArr[2], 3);
    EXPECT_LOG(cap, "ERR", "BP", "node arr element number > max 3");
}

TEST_F(XmlBatchTest, RowsWithoutGetterAreSkippedBeforeSizeIsTested)
{
    ibptest::LogCapture cap;
    Cfg st = kInitial;
    std::vector<XML_GET_TABLE_S> table = {
        Row("x", nullptr, offsetof(Cfg, lY), 4, 0),
        Row("x", XML_GetInt, offsetof(Cfg, lX), 4, 4),
    };
    EXPECT_EQ(Batch("<x>6</x>", table, &st), 0u);
    EXPECT_EQ(st.lX, 6);
    EXPECT_EQ(st.lY, kInitial.lY);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();

    table[0].pfnGet = XML_GetInt;
    st = kInitial;
    EXPECT_EQ(Batch("<x>6</x>", table, &st), 0u);
    EXPECT_EQ(st.lX, kInitial.lX);
    EXPECT_LOG(cap, "ERR", "BP", "Element size is zero");
    EXPECT_LOG(cap, "ERR", "BP", "BatchGetMatch fail! pcNodePath=cfg");
}

TEST_F(XmlBatchTest, GetterGetsChildSizeCapacityAndField)
{
    u8 aucRec[64] = {};
    const std::vector<XML_GET_TABLE_S> table = {
        Row("s", SpyGet, 8, 16, 1),
        Row("a", SpyGet, 20, 12, 4),
        Row("n", SpyGet, 0, -8, 4),
        Row("m", SpyGet, 0, INT_MIN, -1),
    };
    Doc doc("<cfg><s>x</s><a>1,2</a><n>1</n><m>1</m></cfg>");
    ASSERT_NE(doc.h, nullptr);
    EXPECT_EQ(XML_BatchGet(doc.h, "cfg", table.data(), 4, aucRec), 0u);
    ASSERT_EQ(g_calls.size(), 4u);
    EXPECT_EQ(g_calls[0].name, "s");
    EXPECT_EQ(g_calls[0].elemSize, 1u);
    EXPECT_EQ(g_calls[0].count, 16u);
    EXPECT_EQ(g_calls[0].dst, aucRec + 8);
    EXPECT_EQ(g_calls[1].count, 3u);
    EXPECT_EQ(g_calls[1].dst, aucRec + 20);
    EXPECT_EQ(g_calls[2].count, static_cast<u32>(-2));
    EXPECT_EQ(g_calls[3].elemSize, 0xFFFFFFFFu);
    EXPECT_EQ(g_calls[3].count, 0x80000000u);
}

TEST_F(XmlBatchTest, ArgumentsAndMissingParent)
{
    Doc doc("<cfg><empty><!-- only a comment --> </empty></cfg>");
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;
    u8 aucRec[8] = {};
    const std::vector<XML_GET_TABLE_S> table = {Row("x", SpyGet, 0, 4, 4)};

    EXPECT_EQ(XML_BatchGet(doc.h, "cfg/empty", table.data(), 1, aucRec), 0u);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();

    EXPECT_EQ(XML_BatchGet(doc.h, "cfg/none", table.data(), 1, aucRec), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "Get node set of cfg/none fail");

    cap.Clear();
    EXPECT_EQ(XML_BatchGet(nullptr, nullptr, nullptr, 1, nullptr), 1u);
    EXPECT_EQ(XML_BatchGet(doc.h, nullptr, nullptr, 1, nullptr), 1u);
    EXPECT_EQ(XML_BatchGet(doc.h, "cfg", nullptr, 1, nullptr), 1u);
    EXPECT_EQ(XML_BatchGet(doc.h, "cfg", table.data(), 1, nullptr), 1u);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 4u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "hHandle is invalid");
    EXPECT_EQ(recs[1].text, "pcNodePath is NULL");
    EXPECT_EQ(recs[2].text, "pstGetTable is NULL");
    EXPECT_EQ(recs[3].text, "pValue is NULL");
}

// Reads <m> as a matrix of 3 columns and at most ulMaxRows rows of s32.
u32 Matrix(const std::string &rows, u32 ulMaxRows, u32 *pulRows, s32 (&al)[4][3])
{
    Doc doc("<m>" + rows + "</m>");
    EXPECT_NE(doc.h, nullptr);
    u32 aulNum[2] = {3, ulMaxRows};
    u32 ulRet = XML_GetIntArray2D(doc.h, "m", 4, aulNum, al);
    EXPECT_EQ(aulNum[0], 3u);
    *pulRows = aulNum[1];
    return ulRet;
}

TEST_F(XmlMatrixTest, RowsUpToTheMaximum)
{
    ibptest::LogCapture cap;
    s32 al[4][3] = {};
    u32 ulRows = 0;
    EXPECT_EQ(Matrix("<r>1,2,3</r><!-- c --><q>4,5,0x6</q>", 2, &ulRows, al), 0u);
    EXPECT_EQ(ulRows, 2u);
    EXPECT_EQ(al[1][0], 4);
    EXPECT_EQ(al[1][2], 6);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();

    EXPECT_EQ(Matrix("<r>1,2,3</r><r>4,5,6</r><r>7,8,9</r>", 2, &ulRows, al), 0u);
    EXPECT_EQ(ulRows, 2u);
    EXPECT_EQ(al[2][0], 0);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 1u) << cap.Dump();
    EXPECT_EQ(recs[0].level, "WRN");
    EXPECT_EQ(recs[0].text, "real row num 2 >= 2");

    cap.Clear();
    EXPECT_EQ(Matrix("", 2, &ulRows, al), 0u);
    EXPECT_EQ(ulRows, 0u);
    EXPECT_TRUE(cap.Records().empty()) << cap.Dump();
}

TEST_F(XmlMatrixTest, ShortAndLongRowsEndTheMatrix)
{
    ibptest::LogCapture cap;
    s32 al[4][3] = {};
    u32 ulRows = 9;
    EXPECT_EQ(Matrix("<r>1,2,3</r><r>4,5</r><r>7,8,9</r>", 4, &ulRows, al), 0u);
    EXPECT_EQ(ulRows, 1u);
    EXPECT_EQ(al[1][0], 4);  // stored, though not counted
    EXPECT_EQ(al[2][0], 0);
    EXPECT_LOG(cap, "ERR", "BP", "Array element num 2 not equal to 3");

    cap.Clear();
    s32 alLong[4][3] = {};
    EXPECT_EQ(Matrix("<r>1,2,3,4</r><r>5,6,7</r>", 4, &ulRows, alLong), 0u);
    EXPECT_EQ(ulRows, 0u);
    EXPECT_EQ(alLong[0][2], 3);
    EXPECT_EQ(alLong[1][0], 0);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 2u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "node r element number > max 3");
    EXPECT_EQ(recs[1].text, "XML_GetIntArray r fail");
}

TEST_F(XmlMatrixTest, NarrowElementsAndArguments)
{
    Doc doc("<m><r>1,2</r><r>-1,0x7f</r></m>");
    ASSERT_NE(doc.h, nullptr);
    ibptest::LogCapture cap;
    u8 auc[6];
    memset(auc, 0xEE, sizeof(auc));
    u32 aulNum[2] = {2, 3};
    EXPECT_EQ(XML_GetIntArray2D(doc.h, "m", 1, aulNum, auc), 0u);
    EXPECT_EQ(aulNum[1], 2u);
    const u8 aucExpect[6] = {1, 2, 0xFF, 0x7F, 0xEE, 0xEE};
    EXPECT_EQ(memcmp(auc, aucExpect, sizeof(auc)), 0);

    EXPECT_EQ(XML_GetIntArray2D(doc.h, "m/none", 1, aulNum, auc), 1u);
    EXPECT_LOG(cap, "ERR", "BP", "XML_GetNodeset m/none fail");

    cap.Clear();
    EXPECT_EQ(XML_GetIntArray2D(nullptr, nullptr, 1, nullptr, nullptr), 1u);
    EXPECT_EQ(XML_GetIntArray2D(doc.h, nullptr, 1, nullptr, nullptr), 1u);
    EXPECT_EQ(XML_GetIntArray2D(doc.h, "m", 1, nullptr, nullptr), 1u);
    EXPECT_EQ(XML_GetIntArray2D(doc.h, "m", 1, aulNum, nullptr), 1u);
    auto recs = cap.Records();
    ASSERT_EQ(recs.size(), 4u) << cap.Dump();
    EXPECT_EQ(recs[0].text, "hHandle is invalid");
    EXPECT_EQ(recs[1].text, "pcNodePath is NULL");
    EXPECT_EQ(recs[2].text, "pulElemNum is NULL");
    EXPECT_EQ(recs[3].text, "pValue is NULL");
}

}  // namespace
