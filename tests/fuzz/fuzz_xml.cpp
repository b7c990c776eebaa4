// Fuzz target: the XML readers on a crafted file. The input is written to a
// file under /tmp, opened, and read at fixed paths with every reader, each
// into a block of exactly the size it is given, so that a write beyond the
// capacity is caught; then freed. The seeds put integers, lists, words, a
// batch and a matrix at those paths; the fuzzer moves and changes them.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz_log.h"
#include "ibp/isp_xml.h"

namespace {

char gszPath[64];

[[noreturn]] void Broken(const char *pcWhat)
{
    std::fprintf(stderr, "reader broke its contract: %s\n", pcWhat);
    std::abort();
}

void RemoveFile() { unlink(gszPath); }

void Start()
{
    fuzzlog::Start();
    std::snprintf(gszPath, sizeof(gszPath), "/tmp/ibp-fuzz-xml-%d.xml", static_cast<int>(getpid()));
    std::atexit(RemoveFile);
}

struct Block {
    explicit Block(size_t ulSize) : p(new u8[ulSize]) {}
    std::unique_ptr<u8[]> p;
};

void ReadInts(XML_HANDLE hDoc, const char *pcPath)
{
    XML_NODE hNode = XML_GetNodeset(hDoc, pcPath);
    if (hNode == nullptr)
        return;
    for (u32 ulElemSize : {1u, 2u, 4u}) {
        Block stOut(ulElemSize);
        u32 ulNum = 0;
        if (XML_GetInt(hNode, ulElemSize, &ulNum, stOut.p.get()) == 0 && ulNum != 1)
            Broken("XML_GetInt count");
    }
}

// A list is cut up as it is read, so each list node is read once.
void ReadList(XML_HANDLE hDoc, const char *pcPath, u32 ulElemSize, u32 ulCapacity, bool bCountOnly)
{
    XML_NODE hNode = XML_GetNodeset(hDoc, pcPath);
    if (hNode == nullptr)
        return;
    Block stOut(static_cast<size_t>(ulElemSize) * ulCapacity);
    u32 ulNum = bCountOnly ? 0 : ulCapacity;
    if (XML_GetIntArray(hNode, ulElemSize, &ulNum, bCountOnly ? nullptr : stOut.p.get()) == 0 && !bCountOnly &&
        ulNum > ulCapacity)
        Broken("XML_GetIntArray count beyond the capacity");
}

void ReadString(XML_HANDLE hDoc, const char *pcPath, u32 ulCapacity)
{
    XML_NODE hNode = XML_GetNodeset(hDoc, pcPath);
    if (hNode == nullptr)
        return;
    Block stOut(ulCapacity);
    u32 ulLen = ulCapacity;
    if (XML_GetString(hNode, 1, &ulLen, stOut.p.get()) == 0 && ulLen > ulCapacity)
        Broken("XML_GetString length beyond the capacity");
}

// The fields of the batch record lie apart, with guard bytes between them
// that no row may touch.
constexpr u8 kGuard = 0xA5;
constexpr u32 kBatchLen = 24;
constexpr u32 kBatchGuards[] = {4, 5, 6, 7, 11, 17, 18, 19};

void ReadBatch(XML_HANDLE hDoc)
{
    static const XML_GET_TABLE_S kTable[] = {
        {0, "int", XML_GetInt, 0, 4, 4, 0},
        {0, "list", XML_GetIntArray, 8, 3, 1, 0},
        {0, "word", XML_GetString, 12, 5, 1, 0},
        {0, "pair", XML_GetIntArray, 20, 4, 2, 0},
    };
    Block stOut(kBatchLen);
    std::memset(stOut.p.get(), kGuard, kBatchLen);
    (void)XML_BatchGet(hDoc, "cfg/batch", kTable, sizeof(kTable) / sizeof(kTable[0]), stOut.p.get());
    for (u32 ulAt : kBatchGuards) {
        if (stOut.p[ulAt] != kGuard)
            Broken("XML_BatchGet wrote beyond a field");
    }
}

void ReadMatrix(XML_HANDLE hDoc)
{
    constexpr u32 kCols = 3, kRows = 4;
    Block stOut(sizeof(u16) * kCols * kRows);
    u32 aulShape[2] = {kCols, kRows};
    if (XML_GetIntArray2D(hDoc, "cfg/matrix", sizeof(u16), aulShape, stOut.p.get()) == 0 && aulShape[1] > kRows)
        Broken("XML_GetIntArray2D rows beyond the maximum");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    static const bool bStarted = (Start(), true);
    (void)bStarted;
    // Mini-XML 3.3 itself leaks the first element of a document when that
    // element has no parent and its attributes cannot be parsed ("<cfg a\1>"
    // loaded with plain mxmlLoadFile leaks the same node). A declaration in
    // front, where the input brings none, gives every element a parent and
    // keeps that leak of the dependency out of the findings.
    const bool bDeclared = ulSize >= 2 && pucData[0] == '<' && pucData[1] == '?';
    FILE *pstFile = std::fopen(gszPath, "wb");
    if (pstFile == nullptr || (!bDeclared && std::fputs("<?xml version=\"1.0\"?>", pstFile) < 0) ||
        std::fwrite(pucData, 1, ulSize, pstFile) != ulSize || std::fclose(pstFile) != 0)
        std::abort();
    XML_HANDLE hDoc = XML_Init(gszPath, nullptr);
    if (hDoc == nullptr)
        return 0;
    ReadInts(hDoc, "cfg/int");
    ReadInts(hDoc, "*/hex");
    ReadList(hDoc, "cfg/list", 2, 4, false);
    ReadList(hDoc, "cfg/count", 4, 0, true);
    ReadString(hDoc, "cfg/word", 8);
    ReadBatch(hDoc);
    ReadMatrix(hDoc);
    XML_Destroy(hDoc);
    return 0;
}
