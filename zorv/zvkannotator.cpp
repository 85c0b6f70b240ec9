#include "zorv/zvkannotator.h"

#include "zorv/utils/logging.h"

namespace zorvek {

ZVKAnnotator::ZVKAnnotator(const std::string& name, ZVKQueue<ZVKBuffer>* to_fill,
                           ZVKQueue<ZVKBuffer>* to_write)
    : m_name(name),
      m_to_fill(to_fill),
      m_to_write(to_write),
      m_helper(std::make_shared<ZVKBufferRecordHelper>(to_fill, to_write)) {
  generate_offset_record();
}

ZVKAnnotator::ZVKAnnotator(const std::string& name, std::shared_ptr<ZVKBufferRecordHelper> helper)
    : m_name(name), m_helper(std::move(helper)) {
  generate_offset_record();
}

void ZVKAnnotator::note_cut_message(size_t len) {
  if (m_cut_messages.fetch_add(1, std::memory_order_relaxed) == 0) {
    LOG(WARNING) << "An annotation message of " << len << " bytes was cut to "
                 << annotations::kMaxMessageLength << " bytes, the most a record holds";
  }
}

Status ZVKAnnotator::flush() {
  if (const uint64_t cut = m_cut_messages.exchange(0)) {
    LOG(WARNING) << cut << " annotation messages were cut to "
                 << annotations::kMaxMessageLength << " bytes to fit a record";
  }
  return m_helper->flush();
}

void ZVKAnnotator::generate_offset_record() {
  using annotations::kClockPairs;
  timespec mono[kClockPairs] = {};
  timespec real[kClockPairs] = {};
  timespec t0;
  clock_gettime(CLOCK_REALTIME, &t0);

  // The order of readings is part of the record: slot 1 is taken twice on purpose,
  // slots 2-10 are interleaved pairs, 11-15 two back-to-back bursts.
  clock_gettime(CLOCK_MONOTONIC_RAW, &mono[0]);
  clock_gettime(CLOCK_REALTIME, &real[0]);
  clock_gettime(CLOCK_MONOTONIC_RAW, &mono[1]);
  clock_gettime(CLOCK_REALTIME, &real[1]);
  clock_gettime(CLOCK_MONOTONIC_RAW, &mono[1]);
  clock_gettime(CLOCK_REALTIME, &real[1]);
  for (int i = 2; i <= 10; ++i) {
    clock_gettime(CLOCK_MONOTONIC_RAW, &mono[i]);
    clock_gettime(CLOCK_REALTIME, &real[i]);
  }
  for (int i = 11; i < kClockPairs; ++i) clock_gettime(CLOCK_MONOTONIC_RAW, &mono[i]);
  for (int i = 11; i < kClockPairs; ++i) clock_gettime(CLOCK_REALTIME, &real[i]);

  const ProcessIdentity& identity = current_identity();
  const int cpu = sched_getcpu();
  auto writer = m_helper->new_record(timespec_to_ns(t0), event_word(annotations::TIME_MARKER, cpu),
                                     identity.pid, identity.tid, 0,
                                     sizeof(annotations::time_marker));
  annotations::time_marker marker;
  for (int i = 0; i < kClockPairs; ++i) {
    marker.monotic[i] = timespec_to_ns(mono[i]);
    marker.realtime[i] = timespec_to_ns(real[i]);
  }
  std::memcpy(writer.get_payload_store(), &marker, sizeof(marker));
}

}  // namespace zorvek
