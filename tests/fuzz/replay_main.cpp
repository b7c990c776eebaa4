// Runs a fuzz target, built with the ordinary compiler, over every file of
// the folders named on the command line (files in name order; a folder that
// does not exist is passed over). The ordinary tests replay the corpora and
// the inputs that once crashed a target this way. A run that finds no input
// at all fails, so that a wrong path cannot pass for a clean replay.
// 64-bit inode numbers and sizes on a 32-bit target as well: without them
// readdir and stat of armhf fail with EOVERFLOW on a host file system whose
// inode numbers do not fit 32 bits, as under qemu-user.
#define _FILE_OFFSET_BITS 64

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize);

namespace {

std::vector<std::string> FilesIn(const std::string &sDir)
{
    std::vector<std::string> files;
    DIR *pstDir = opendir(sDir.c_str());
    if (pstDir == nullptr)
        return files;
    while (const dirent *pstEntry = readdir(pstDir)) {
        const std::string sPath = sDir + "/" + pstEntry->d_name;
        struct stat stInfo;
        if (stat(sPath.c_str(), &stInfo) == 0 && S_ISREG(stInfo.st_mode))
            files.push_back(sPath);
    }
    closedir(pstDir);
    std::sort(files.begin(), files.end());
    return files;
}

bool ReadFile(const std::string &sPath, std::vector<uint8_t> *pData)
{
    FILE *pstFile = std::fopen(sPath.c_str(), "rb");
    if (pstFile == nullptr)
        return false;
    uint8_t aucChunk[4096];
    for (size_t ulGot; (ulGot = std::fread(aucChunk, 1, sizeof(aucChunk), pstFile)) != 0;)
        pData->insert(pData->end(), aucChunk, aucChunk + ulGot);
    const bool bOk = std::ferror(pstFile) == 0;
    std::fclose(pstFile);
    return bOk;
}

}  // namespace

int main(int argc, char **argv)
{
    size_t ulNum = 0;
    for (int i = 1; i < argc; i++) {
        for (const std::string &sPath : FilesIn(argv[i])) {
            std::vector<uint8_t> data;
            if (!ReadFile(sPath, &data)) {
                std::fprintf(stderr, "cannot read %s\n", sPath.c_str());
                return 1;
            }
            // Standard output may belong to the target; the report goes to standard error.
            std::fprintf(stderr, "replay %s\n", sPath.c_str());
            static const uint8_t ucNone = 0;
            (void)LLVMFuzzerTestOneInput(data.empty() ? &ucNone : data.data(), data.size());
            ulNum++;
        }
    }
    std::fprintf(stderr, "%zu inputs replayed\n", ulNum);
    return ulNum != 0 ? 0 : 1;
}
