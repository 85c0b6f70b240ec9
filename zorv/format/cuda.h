#pragma once

#include <cstddef>
#include <cstdint>

// The payloads of GPU tracing records (hw_type GPU, device_id 0). These bytes go
// into the capture file unchanged: every size and offset below is file format.

namespace zorvek {
namespace cudaevent {

// The low 12 bits of a GPU record's event_type.
enum CUDARecordType : uint32_t {
  KERNEL_NAME = 0,  // akind 0: a kernel's name; 1: a traced call's function name
  KERNEL = 1,
  CONCURRENT_KERNEL = 2,
  SYNCRONIZATION = 3,  // spelled so in the format; akind is the synchronization type
  MEMCOPY = 4,         // akind is CUPTI's copyKind
  MEMCOPY_P2P = 5,     // akind is CUPTI's copyKind
  MEMSET = 6,          // akind is always 2
  DRIVER = 7,
  RUNTIME = 8,
  CUDA_API = 9,  // a traced driver API call, with its host call chain
  NUM_CUDA_RECORD_TYPES = 10,
};
static_assert(sizeof(CUDARecordType) == 4, "CUDARecordType is a 32-bit enum");

// akind of a KERNEL_NAME record.
constexpr uint32_t kKernelNameKind = 0;
constexpr uint32_t kFunctionNameKind = 1;
// akind of every MEMSET record.
constexpr uint32_t kMemsetKind = 2;

}  // namespace cudaevent

// The 20-bit event_type of a GPU record: atype in the low 12 bits, akind above.
struct ZVKCudaEventType {
  uint32_t atype : 12;
  uint32_t akind : 8;
};
static_assert(sizeof(ZVKCudaEventType) == 4, "ZVKCudaEventType is one 32-bit word");

constexpr uint32_t cuda_event_value(uint32_t atype, uint32_t akind) {
  return (atype & 0xfffu) + ((akind & 0xffu) << 12);
}
static_assert(cuda_event_value(cudaevent::MEMCOPY, 1) == 0x1004, "a copy of kind 1");
static_assert(cuda_event_value(cudaevent::MEMSET, cudaevent::kMemsetKind) == 0x2006, "a memset");
static_assert(cuda_event_value(cudaevent::SYNCRONIZATION, 3) == 0x3003, "a sync of type 3");
static_assert(cuda_event_value(cudaevent::KERNEL_NAME, cudaevent::kFunctionNameKind) == 0x1000,
              "a function name");

namespace cudaevent {

// Payload of KERNEL_NAME: the id other records name the string by, then the name
// with its NUL, padded to a multiple of 8.
struct kernel_name {
  uint32_t id;
  uint32_t len_name;  // strlen of the name; 0 for the fixed "Unknown" of a traced call
  char name[];
};
static_assert(sizeof(kernel_name) == 8, "kernel_name's fixed part is 8 bytes");
static_assert(offsetof(kernel_name, id) == 0, "id at 0");
static_assert(offsetof(kernel_name, len_name) == 4, "len_name at 4");
static_assert(offsetof(kernel_name, name) == 8, "name at 8");

// The name area of a `len`-character name: room for the NUL, rounded to 8. In 32
// bits, as the payload size that is 8 more is then cut to 16.
constexpr uint32_t aligned_name_size(uint32_t len) { return (len + 8) & ~7u; }
static_assert(aligned_name_size(7) + sizeof(kernel_name) == 16, "a 7-character name");
static_assert(aligned_name_size(8) + sizeof(kernel_name) == 24, "an 8-character name");
static_assert(aligned_name_size(0) + sizeof(kernel_name) == 16, "an empty name");

struct kernel_pack {
  uint32_t nameId;  // id of the kernel's KERNEL_NAME record (akind 0)
  uint16_t registersPerThread;
  uint8_t shmConfig;
  uint8_t launchType;
};
static_assert(sizeof(kernel_pack) == 8, "kernel_pack is 8 bytes");
static_assert(offsetof(kernel_pack, nameId) == 0, "nameId at 0");
static_assert(offsetof(kernel_pack, registersPerThread) == 4, "registersPerThread at 4");
static_assert(offsetof(kernel_pack, shmConfig) == 6, "shmConfig at 6");
static_assert(offsetof(kernel_pack, launchType) == 7, "launchType at 7");

// Payload of KERNEL and CONCURRENT_KERNEL.
struct kernel {
  uint64_t end;
  uint64_t completed;
  int32_t gridX;
  int32_t gridY;
  int32_t gridZ;
  int32_t blockX;
  int32_t blockY;
  int32_t blockZ;
  int64_t gridId;
  union {
    kernel_pack pack;
    uint64_t v;
  };
  uint32_t deviceId;
  uint32_t staticSharedMem;
  uint32_t correlationId;
  uint32_t streamId;
};
static_assert(sizeof(kernel) == 72, "kernel is 72 bytes");
static_assert(offsetof(kernel, end) == 0, "end at 0");
static_assert(offsetof(kernel, completed) == 8, "completed at 8");
static_assert(offsetof(kernel, gridX) == 16, "gridX at 16");
static_assert(offsetof(kernel, gridY) == 20, "gridY at 20");
static_assert(offsetof(kernel, gridZ) == 24, "gridZ at 24");
static_assert(offsetof(kernel, blockX) == 28, "blockX at 28");
static_assert(offsetof(kernel, blockY) == 32, "blockY at 32");
static_assert(offsetof(kernel, blockZ) == 36, "blockZ at 36");
static_assert(offsetof(kernel, gridId) == 40, "gridId at 40");
static_assert(offsetof(kernel, pack) == 48, "pack at 48");
static_assert(offsetof(kernel, deviceId) == 56, "deviceId at 56");
static_assert(offsetof(kernel, staticSharedMem) == 60, "staticSharedMem at 60");
static_assert(offsetof(kernel, correlationId) == 64, "correlationId at 64");
static_assert(offsetof(kernel, streamId) == 68, "streamId at 68");

// Payload of SYNCRONIZATION.
struct sync {
  uint64_t end;
  uint32_t correlationId;
  uint32_t streamId;
};
static_assert(sizeof(sync) == 16, "sync is 16 bytes");
static_assert(offsetof(sync, end) == 0, "end at 0");
static_assert(offsetof(sync, correlationId) == 8, "correlationId at 8");
static_assert(offsetof(sync, streamId) == 12, "streamId at 12");

// The kinds of a copy. Only these four bytes are written; a reader ignores `v`.
struct copy_attr {
  uint8_t copy_kind;
  uint8_t src_kind;
  uint8_t dst_kind;
  uint8_t flags;
};
static_assert(sizeof(copy_attr) == 4, "copy_attr is 4 bytes");
static_assert(offsetof(copy_attr, copy_kind) == 0, "copy_kind at 0");
static_assert(offsetof(copy_attr, src_kind) == 1, "src_kind at 1");
static_assert(offsetof(copy_attr, dst_kind) == 2, "dst_kind at 2");
static_assert(offsetof(copy_attr, flags) == 3, "flags at 3");

// Payload of MEMCOPY.
struct memcopy {
  uint64_t end;
  uint64_t bytes;
  union {
    copy_attr attr;
    uint64_t v;
  };
  uint32_t correlationId;
  uint32_t streamId;
  uint32_t runtimeCorrId;
  uint32_t contextId;
};
static_assert(sizeof(memcopy) == 40, "memcopy is 40 bytes");
static_assert(offsetof(memcopy, end) == 0, "end at 0");
static_assert(offsetof(memcopy, bytes) == 8, "bytes at 8");
static_assert(offsetof(memcopy, attr) == 16, "attr at 16");
static_assert(offsetof(memcopy, correlationId) == 24, "correlationId at 24");
static_assert(offsetof(memcopy, streamId) == 28, "streamId at 28");
static_assert(offsetof(memcopy, runtimeCorrId) == 32, "runtimeCorrId at 32");
static_assert(offsetof(memcopy, contextId) == 36, "contextId at 36");

// Payload of MEMCOPY_P2P.
struct memcopy_p2p {
  uint64_t end;
  uint64_t bytes;
  union {
    copy_attr attr;
    uint64_t v;
  };
  uint32_t srcDevice;
  uint32_t dstDevice;
  uint32_t correlationId;
  uint32_t streamId;
  uint32_t srcContext;
  uint32_t dstContext;
};
static_assert(sizeof(memcopy_p2p) == 48, "memcopy_p2p is 48 bytes");
static_assert(offsetof(memcopy_p2p, end) == 0, "end at 0");
static_assert(offsetof(memcopy_p2p, bytes) == 8, "bytes at 8");
static_assert(offsetof(memcopy_p2p, attr) == 16, "attr at 16");
static_assert(offsetof(memcopy_p2p, srcDevice) == 24, "srcDevice at 24");
static_assert(offsetof(memcopy_p2p, dstDevice) == 28, "dstDevice at 28");
static_assert(offsetof(memcopy_p2p, correlationId) == 32, "correlationId at 32");
static_assert(offsetof(memcopy_p2p, streamId) == 36, "streamId at 36");
static_assert(offsetof(memcopy_p2p, srcContext) == 40, "srcContext at 40");
static_assert(offsetof(memcopy_p2p, dstContext) == 44, "dstContext at 44");

// Payload of MEMSET.
struct memset {
  uint64_t end;
  uint64_t size;
  uint32_t value;
  uint32_t correlationId;
  uint32_t streamId;
  uint16_t flags;
  uint16_t memkind;
};
static_assert(sizeof(memset) == 32, "memset is 32 bytes");
static_assert(offsetof(memset, end) == 0, "end at 0");
static_assert(offsetof(memset, size) == 8, "size at 8");
static_assert(offsetof(memset, value) == 16, "value at 16");
static_assert(offsetof(memset, correlationId) == 20, "correlationId at 20");
static_assert(offsetof(memset, streamId) == 24, "streamId at 24");
static_assert(offsetof(memset, flags) == 28, "flags at 28");
static_assert(offsetof(memset, memkind) == 30, "memkind at 30");

// Payload of DRIVER and RUNTIME activity.
struct driver {
  uint64_t end;
  uint32_t pid;
  uint32_t tid;
  uint32_t correlationId;
  uint32_t returnValue;
};
static_assert(sizeof(driver) == 24, "driver is 24 bytes");
static_assert(offsetof(driver, end) == 0, "end at 0");
static_assert(offsetof(driver, pid) == 8, "pid at 8");
static_assert(offsetof(driver, tid) == 12, "tid at 12");
static_assert(offsetof(driver, correlationId) == 16, "correlationId at 16");
static_assert(offsetof(driver, returnValue) == 20, "returnValue at 20");

// Payload of CUDA_API; the host call chain stands ahead of it in the record.
struct callback {
  uint64_t end;
  uint32_t domain;
  uint32_t cbid;
  uint32_t correlationId;
  uint32_t funcNameId;  // id of a KERNEL_NAME record of akind 1
};
static_assert(sizeof(callback) == 24, "callback is 24 bytes");
static_assert(offsetof(callback, end) == 0, "end at 0");
static_assert(offsetof(callback, domain) == 8, "domain at 8");
static_assert(offsetof(callback, cbid) == 12, "cbid at 12");
static_assert(offsetof(callback, correlationId) == 16, "correlationId at 16");
static_assert(offsetof(callback, funcNameId) == 20, "funcNameId at 20");

}  // namespace cudaevent
}  // namespace zorvek
