// Byte throughput of CBUF_Write + CBUF_Read against two plain memcpy calls
// moving the same chunks through a ring of the same size, bare and with one
// uncontended lock and unlock around them (the floor that a locked ring
// allows; scripts/bench.sh compares against that one).
//
//   bench_circbuf --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <pthread.h>

#include <cstring>
#include <vector>

#include "ibp/isp_circbuf.h"

namespace {

constexpr u32 kRingBytes = 64 * 1024;

// Each chunk goes in and comes straight out again, so the positions walk
// round the ring; starting one byte in, one call per lap splits its copies
// at the end of the storage.
void BM_CircBufWriteRead(benchmark::State &state)
{
    const u32 ulChunk = static_cast<u32>(state.range(0));
    CBUF_INIT_S stInit = {"bench", 1, kRingBytes, 0, nullptr, nullptr, nullptr};
    CBUF_HANDLE hBuf = CBUF_Init(&stInit);
    if (hBuf == nullptr) {
        state.SkipWithError("CBUF_Init failed");
        return;
    }
    std::vector<u8> src(ulChunk, 0x5a), dst(ulChunk);
    CBUF_Write(hBuf, src.data(), 1);
    CBUF_Read(hBuf, 1, dst.data());
    for (auto _ : state) {
        s32 lIn = CBUF_Write(hBuf, src.data(), ulChunk);
        s32 lOut = CBUF_Read(hBuf, ulChunk, dst.data());
        benchmark::DoNotOptimize(lIn);
        benchmark::DoNotOptimize(lOut);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * ulChunk);
    CBUF_Destroy(hBuf);
}

// The floors: the same two copies at the same (unaligned) offsets, with the
// offset arithmetic done by hand, no checks and no wrap split, under
// kLocks uncontended lock-unlock pairs of an ordinary mutex: none, one round
// both copies (the floor a locked ring allows), or one round each copy, as a
// write and a read that each take the ring's lock.
template <int kLocks> void BM_MemcpyFloor(benchmark::State &state)
{
    const u32 ulChunk = static_cast<u32>(state.range(0));
    std::vector<u8> ring(kRingBytes + ulChunk), src(ulChunk, 0x5a), dst(ulChunk);
    pthread_mutex_t stLock = PTHREAD_MUTEX_INITIALIZER;
    u32 ulPos = 1;
    for (auto _ : state) {
        if (kLocks > 0)
            pthread_mutex_lock(&stLock);
        memcpy(ring.data() + ulPos, src.data(), ulChunk);
        if (kLocks > 1) {
            pthread_mutex_unlock(&stLock);
            pthread_mutex_lock(&stLock);
        }
        memcpy(dst.data(), ring.data() + ulPos, ulChunk);
        ulPos = (ulPos + ulChunk) & (kRingBytes - 1);
        if (kLocks > 0)
            pthread_mutex_unlock(&stLock);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * ulChunk);
    pthread_mutex_destroy(&stLock);
}

void BM_MemcpyWriteRead(benchmark::State &state) { BM_MemcpyFloor<0>(state); }
void BM_MemcpyLockWriteRead(benchmark::State &state) { BM_MemcpyFloor<1>(state); }
void BM_MemcpyLock2WriteRead(benchmark::State &state) { BM_MemcpyFloor<2>(state); }

}  // namespace

BENCHMARK(BM_CircBufWriteRead)->Arg(64)->Arg(1024)->Arg(4096);
BENCHMARK(BM_MemcpyWriteRead)->Arg(64)->Arg(1024)->Arg(4096);
BENCHMARK(BM_MemcpyLockWriteRead)->Arg(64)->Arg(1024)->Arg(4096);
BENCHMARK(BM_MemcpyLock2WriteRead)->Arg(64)->Arg(1024)->Arg(4096);
