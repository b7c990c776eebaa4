// Table-driven batch reads into a record, and integer matrices.
#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <tuple>
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

auto Fields(const Cfg &st)
{
    return std::make_tuple(st.lX, st.lY, st.ausArr[0], st.ausArr[1], st.ausArr[2], std::string(st.szName));
}

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

TEST_F(XmlTest, FillsFieldsInFileOrderUntilAChildFails)
{
    const char *const kStop = "ERR BatchGetMatch fail! pcNodePath=cfg";
    const Texts kNoRow = {"ERR Get node z content fail", kStop};
    // Rows for one name: the first has no getter and is passed over before its zero size counts.
    std::vector<XML_GET_TABLE_S> twoX = {Row("x", nullptr, offsetof(Cfg, lY), 4, 0), kTable[0]};
    std::vector<XML_GET_TABLE_S> zeroX = {Row("x", XML_GetInt, offsetof(Cfg, lY), 4, 0), kTable[0]};
    // INT_MIN / -1 does not fit 32 bits; the getter then refuses the element size.
    std::vector<XML_GET_TABLE_S> minX = {Row("x", XML_GetInt, offsetof(Cfg, lX), INT_MIN, -1)};
    const Cfg kX6 = {6, -2, {9, 9, 9}, "init"};
    const struct {
        const std::vector<XML_GET_TABLE_S> &table;
        const char *children;
        Cfg expect;
        Texts records;
    } cases[] = {
        {kTable, "<x>1</x><y>0x20</y><arr>4,5,6</arr><name>cam0</name>", {1, 32, {4, 5, 6}, "cam0"}, {}},
        // No element for arr and name: the initial values stand.
        {kTable, "<!-- y first --><y>7</y>\n <x>-3</x>", {-3, 7, {9, 9, 9}, "init"}, {}},
        {kTable, "<x>1</x><x>6</x>", kX6, {}},
        {kTable, "<!-- only a comment --> ", kInitial, {}},
        {kTable, "<x>1</x><z>5</z><y>2</y>", {1, -2, {9, 9, 9}, "init"}, kNoRow},
        {kTable, "<name>toolongforsixteen!</name><x>1</x>", kInitial,
         {"WRN output buffer not enough! 18 > 16 ", "ERR Get value from node name fail", kStop}},
        {kTable, "<arr>1,2,3,4</arr><x>1</x>", {-1, -2, {1, 2, 3}, "init"},
         {"ERR node arr element number > max 3", "ERR Get value from node arr fail", kStop}},
        {twoX, "<x>6</x>", kX6, {}},
        {zeroX, "<x>6</x>", kInitial, {"ERR Element size is zero", kStop}},
        {minX, "<x>6</x>", kInitial,
         {"ERR element size 4294967295 > 4 not supported", "ERR Get value from node x fail", kStop}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.children);
        Doc doc("<cfg>" + std::string(c.children) + "</cfg>");
        ibptest::LogCapture cap;
        Cfg st = kInitial;
        // A stopped walk still gives 0.
        EXPECT_EQ(XML_BatchGet(doc.h, "cfg", c.table.data(), static_cast<u32>(c.table.size()), &st), 0u);
        EXPECT_EQ(Fields(st), Fields(c.expect));
        EXPECT_EQ(TextsOf(cap, true), c.records);
        if (cap.Records().size() > 1) {
            EXPECT_EQ(cap.Records()[cap.Records().size() - 2].func, "BatchGetMatch");
        }
    }
}

TEST_F(XmlTest, ShortAndLongRowsEndTheMatrix)
{
    const struct {
        const char *rows;
        u32 cols, maxRows, elemSize;
        u32 rowsRead;
        std::vector<u32> stored;  // elements row after row; the rest of the matrix stays 0
        Texts records;
    } cases[] = {
        {"<r>1,2,3</r><!-- c --><q>4,5,0x6</q>", 3, 2, 4, 2, {1, 2, 3, 4, 5, 6}, {}},
        {"<r>1,2</r><r>-1,0x17f</r>", 2, 3, 1, 2, {1, 2, 0xFF, 0x7F}, {}},
        {"<r>1,2,3</r><r>4,5,6</r><r>7,8,9</r>", 3, 2, 2, 2, {1, 2, 3, 4, 5, 6}, {"WRN real row num 2 >= 2"}},
        {"", 3, 2, 4, 0, {}, {}},
        {"<r>1,2,3</r><r>4,5</r><r>7,8,9</r>", 3, 4, 4, 1, {1, 2, 3, 4, 5},
         {"ERR Array element num 2 not equal to 3"}},
        {"<r>1,2,3,4</r><r>5,6,7</r>", 3, 4, 4, 0, {1, 2, 3},
         {"ERR node r element number > max 3", "ERR XML_GetIntArray r fail"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.rows);
        Doc doc("<m>" + std::string(c.rows) + "</m>");
        ibptest::LogCapture cap;
        u8 auc[48] = {};
        u32 aulNum[2] = {c.cols, c.maxRows};
        EXPECT_EQ(XML_GetIntArray2D(doc.h, "m", c.elemSize, aulNum, auc), 0u);
        EXPECT_EQ(aulNum[0], c.cols);
        EXPECT_EQ(aulNum[1], c.rowsRead);
        std::vector<u32> got(sizeof(auc) / c.elemSize), expect(c.stored);
        for (size_t j = 0; j < got.size(); ++j)
            memcpy(&got[j], auc + j * c.elemSize, c.elemSize);
        expect.resize(got.size(), 0);
        EXPECT_EQ(got, expect);
        EXPECT_EQ(TextsOf(cap, true), c.records);
    }
}

}  // namespace
