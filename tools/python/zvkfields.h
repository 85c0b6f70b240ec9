#pragma once

// A record's fields by name, walked once for every form the Python reader gives
// them in: a dict per record (batches) or a column per field (columns). The walk
// names each field and says its type; the sink decides how it is kept.
//
// A sink has these members, each taking the field's name (a literal) first:
//   u64(key, value), i64(key, value), flag(key, bool)
//   label(key, literal)        one of a few fixed names ("BEGIN", "cpu", ...)
//   text(key, string_view)     text from the capture, UTF-8 as captured
//   path(key, string_view)     a file name, its bytes kept
//   bytes(key, string_view)
//   triple(key, x, y, z)       three int32
//   u64s(key, count, at)       `count` addresses, at(i) the i-th
//   frames(key, decoded)       the Python frames of a stack record

#include <cstdint>
#include <string_view>

#include "tools/zvkrecords.h"

namespace zorvek {

// A record's header fields, then its payload's by kind. A payload that can't be
// read as its kind gives its event code and bytes, as "event_type" and "raw".
// Returns whether the payload was decoded.
template <typename Sink>
bool walk_fields(const ZVKRecordReader& record, Sink& d) {
  d.u64("timestamp", record.timestamp());
  d.label("hw", hardware_name(record.hardware_type()));
  d.label("event", event_name(record));
  d.u64("pid", record.pid());
  d.u64("tid", record.tid());
  d.u64("device", record.device_id());
  DecodedRecord decoded;
  if (!decode_record(record, &decoded)) {
    d.u64("event_type", record.event_type());
    d.bytes("raw", std::string_view(static_cast<const char*>(record.payload()),
                                    record.payload_size()));
    return false;
  }
  const auto chain = [&record](const char* key, Sink& sink) {
    sink.u64s(key, 2 * static_cast<uint32_t>(record.num_callchains()),
              [&record](uint32_t i) { return chain_slot(record, static_cast<int>(i)); });
  };
  const DecodedRecord::Fixed& f = decoded.fixed;
  switch (decoded.layout) {
    case DecodedRecord::kBegin:
      d.u64("token", f.token);
      d.text("msg", decoded.text);
      break;
    case DecodedRecord::kEnd: d.u64("token", f.token); break;
    case DecodedRecord::kTimeMarker:
      d.u64s("monotonic_raw", annotations::kClockPairs,
             [&f](uint32_t i) { return f.marker.monotic[i]; });
      d.u64s("realtime", annotations::kClockPairs,
             [&f](uint32_t i) { return f.marker.realtime[i]; });
      break;
    case DecodedRecord::kCpuConfiguration:
      d.u64("perf_type", f.config.type);
      d.u64("config", f.config.config);
      d.u64("config1", f.config.config1);
      d.u64("config2", f.config.config2);
      d.u64("precise", f.config.precise);
      d.u64("period", f.config.sample_period);
      d.u64("format_id", f.config.format_id);
      break;
    case DecodedRecord::kCpuSample:
      d.u64("ip", f.sample.ip);
      d.u64("id", f.sample.id);
      d.u64("stream_id", f.sample.stream_id);
      chain("chain", d);
      break;
    case DecodedRecord::kCpuThrottle:
      d.u64("id", f.throttle.id);
      d.u64("stream_id", f.throttle.stream_id);
      break;
    case DecodedRecord::kCpuLost:
      d.u64("id", f.lost.id);
      d.u64("stream_id", f.lost.stream_id);
      d.u64("lost", f.lost.lost);
      break;
    case DecodedRecord::kCpuMmap:
      d.u64("id", f.mmap.id);
      d.u64("stream_id", f.mmap.stream_id);
      d.u64("addr", f.mmap.addr);
      d.u64("len", f.mmap.len);
      d.u64("pgoff", f.mmap.pgoff);
      d.path("filename", decoded.text);
      break;
    case DecodedRecord::kCpuForkExit:
      d.u64("id", f.fork.id);
      d.u64("stream_id", f.fork.stream_id);
      d.u64("ppid", f.fork.ppid);
      d.u64("ptid", f.fork.ptid);
      break;
    case DecodedRecord::kCpuStack:
      d.u64("weight_ns", f.stack.weight_ns);
      d.label("clock", sample_clock_name(f.stack.clock));
      d.flag("waiting", (f.stack.flags & perfevent::STACK_WAITING) != 0);
      d.u64("flags", f.stack.flags);
      d.u64s("ips", decoded.frames.native_count,
             [&decoded](uint32_t i) { return native_frame(decoded, i); });
      d.frames("py", decoded);
      break;
    case DecodedRecord::kCpuPythonCode:
      d.u64("code_id", f.code.code_id);
      d.i64("first_line", f.code.first_line);
      d.u64("py_version", f.code.python_version);
      d.text("qualname", decoded.text);
      d.text("filename", decoded.frames.filename);
      d.bytes("linetable", decoded.frames.linetable);
      d.flag("linetable_cut", (f.code.flags & perfevent::PYTHON_CODE_LINETABLE_CUT) != 0);
      break;
    case DecodedRecord::kCpuApiStack:
      d.u64("correlation", f.api_stack.correlation_id);
      d.frames("py", decoded);
      break;
    case DecodedRecord::kGpuName:
      d.label("table", gpu_kind(record) == cudaevent::kKernelNameKind ? "kernel" : "function");
      d.u64("id", f.name.id);
      d.text("name", decoded.text);
      break;
    case DecodedRecord::kGpuKernel:
      d.u64("end", f.kernel.end);
      d.u64("completed", f.kernel.completed);
      d.triple("grid", f.kernel.gridX, f.kernel.gridY, f.kernel.gridZ);
      d.triple("block", f.kernel.blockX, f.kernel.blockY, f.kernel.blockZ);
      d.u64("registers", f.kernel.pack.registersPerThread);
      d.u64("static_shared_mem", f.kernel.staticSharedMem);
      d.u64("stream", f.kernel.streamId);
      d.u64("correlation", f.kernel.correlationId);
      d.u64("name_id", f.kernel.pack.nameId);
      d.u64("device_id", f.kernel.deviceId);
      break;
    case DecodedRecord::kGpuMemcopy:
    case DecodedRecord::kGpuMemcopyP2P: {
      const bool p2p = decoded.layout == DecodedRecord::kGpuMemcopyP2P;
      const cudaevent::copy_attr& attr = p2p ? f.p2p.attr : f.memcopy.attr;
      d.u64("end", p2p ? f.p2p.end : f.memcopy.end);
      d.u64("bytes", p2p ? f.p2p.bytes : f.memcopy.bytes);
      d.u64("copy_kind", attr.copy_kind);
      d.u64("src_kind", attr.src_kind);
      d.u64("dst_kind", attr.dst_kind);
      d.u64("stream", p2p ? f.p2p.streamId : f.memcopy.streamId);
      d.u64("correlation", p2p ? f.p2p.correlationId : f.memcopy.correlationId);
      if (p2p) {
        d.u64("src_device", f.p2p.srcDevice);
        d.u64("dst_device", f.p2p.dstDevice);
      }
      break;
    }
    case DecodedRecord::kGpuMemset:
      d.u64("end", f.memset.end);
      d.u64("bytes", f.memset.size);
      d.u64("value", f.memset.value);
      d.u64("stream", f.memset.streamId);
      d.u64("correlation", f.memset.correlationId);
      d.u64("memkind", f.memset.memkind);
      break;
    case DecodedRecord::kGpuSync:
      d.u64("end", f.sync.end);
      d.u64("sync_type", gpu_kind(record));
      d.u64("stream", f.sync.streamId);
      d.u64("correlation", f.sync.correlationId);
      break;
    case DecodedRecord::kGpuActivity:
      d.u64("end", f.activity.end);
      d.u64("api_pid", f.activity.pid);
      d.u64("api_tid", f.activity.tid);
      d.u64("correlation", f.activity.correlationId);
      d.u64("return_value", f.activity.returnValue);
      break;
    case DecodedRecord::kGpuCall:
      d.u64("end", f.call.end);
      d.u64("domain", f.call.domain);
      d.u64("cbid", f.call.cbid);
      d.u64("correlation", f.call.correlationId);
      d.u64("func_name_id", f.call.funcNameId);
      chain("chain", d);
      break;
    case DecodedRecord::kRaw: break;
  }
  return true;
}

}  // namespace zorvek
