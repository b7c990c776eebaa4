/** @file
 * XML configuration files on Mini-XML: documents opened from a file or from a
 * member of a zip archive, element lookup by path, typed reads of an
 * element's text, table-driven batch reads and integer matrices.
 *
 * Text of an element is its first word only: the loader cuts character data
 * at white space, so integer lists are written with commas and no blanks and
 * a string value is one word. Integer lists are split in place, so each list
 * element of a document can be read once; open the document again to re-read. */
#ifndef IBP_ISP_XML_H
#define IBP_ISP_XML_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** Mini-XML's node record; its header names it mxml_node_t. */
struct _mxml_node_s;

#define XML_FILE_NAME_LEN 128u /**< XML_DOC_S.acFileName, NUL included */

/** One open document, one heap block. */
typedef struct {
    char acFileName[XML_FILE_NAME_LEN]; /**< path that was opened, cut to 127 characters */
    struct _mxml_node_s *pstRoot;       /**< top of the loaded tree, owned by the document */
} XML_DOC_S;

/** An open document. */
typedef XML_DOC_S *XML_HANDLE;

/** An element node of an open document; valid until XML_Destroy. */
typedef struct _mxml_node_s *XML_NODE;

/** Shape of the three readers and of the getter of a batch table row:
 * reads the text of hNode into pValue as elements of ulElemSize bytes,
 * *pulElemNum being the capacity on entry and the count on return. */
typedef u32 (*XML_GET_VALUE_PFN)(XML_NODE hNode, u32 ulElemSize, u32 *pulElemNum, void *pValue);

/** One row of the table of XML_BatchGet; the library only reads it. */
typedef struct {
    u32 ulReserved1;           /**< not read */
    const char *pcName;        /**< element name, compared exactly */
    XML_GET_VALUE_PFN pfnGet;  /**< null: the row never matches */
    u32 ulOffset;              /**< byte offset of the field in the caller's record */
    s32 lSize;                 /**< size of the field in bytes */
    s32 lElemSize;             /**< size of one element in bytes */
    u32 ulReserved2;           /**< not read */
} XML_GET_TABLE_S;

/** Opens pcXmlFile, or with pcZipFile given the member pcXmlFile of that
 * archive (extracted with unzip into /tmp for the time of the load; both names
 * may hold only letters, digits and ._/+-). Returns null on failure. What
 * Mini-XML finds wrong in a file becomes a log record, not text on standard
 * error: the load sets Mini-XML's error callback on the calling thread. */
IBP_API XML_HANDLE XML_Init(const char *pcXmlFile, const char *pcZipFile);
/** Opens the file pcXmlFile, as XML_Init without an archive. */
IBP_API XML_HANDLE XML_InitLensFile(const char *pcXmlFile);
/** Frees the tree and the record; the caller's variable is left as it is. */
IBP_API void XML_Destroy(XML_HANDLE hHandle);
/** Element at a "/"-separated path below the top of the document ("*" is a
 * wildcard); null, without a log record, when there is none. */
IBP_API XML_NODE XML_GetNodeset(XML_HANDLE hHandle, const char *pcNodePath);

/** One integer (decimal, 0x hex or 0 octal) of ulElemSize (0 to 4) bytes;
 * *pulElemNum becomes 1. */
IBP_API u32 XML_GetInt(XML_NODE hNode, u32 ulElemSize, u32 *pulElemNum, void *pValue);
/** A comma-separated integer list; empty fields are skipped. A null pValue
 * only counts. */
IBP_API u32 XML_GetIntArray(XML_NODE hNode, u32 ulElemSize, u32 *pulElemNum, void *pValue);
/** The text, zero-filled to the capacity *pulSize; a text exactly as long as
 * the capacity has no terminator. *pulSize becomes the text's length.
 * ulElemSize is not used. */
IBP_API u32 XML_GetString(XML_NODE hNode, u32 ulElemSize, u32 *pulSize, void *pValue);

/** Reads every element child of pcNodePath into the record at pValue through
 * the table row of the child's name. A child without a row stops the walk
 * (logged); the result is 1 only for a bad argument or a missing parent. */
IBP_API u32 XML_BatchGet(XML_HANDLE hHandle, const char *pcNodePath,
                         const XML_GET_TABLE_S *pstGetTable, u32 ulTableNum, void *pValue);
/** Reads each element child of pcNodePath as one matrix row. pulElemNum[0] is
 * the exact number of columns, pulElemNum[1] the maximum number of rows on
 * entry and the number of complete rows on return. */
IBP_API u32 XML_GetIntArray2D(XML_HANDLE hHandle, const char *pcNodePath, u32 ulElemSize,
                              u32 *pulElemNum, void *pValue);

IBP_EXTERN_C_END

#endif /* IBP_ISP_XML_H */
