#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "tests/test_support.h"
#include "tools/zvkbucketreader.h"
#include "zorv/format/annotation.h"
#include "zorv/format/record.h"
#include "zorv/io/zvkbufferrecordhelper.h"

namespace zorvek {
namespace {

TEST(Record, EventWordPacksLowestBitFirst) {
  ZVKRecord record{};
  record.enc.hw_type = ANNOTATION;
  record.enc.device_id = 3;
  record.enc.event_type = annotations::BEGIN;
  EXPECT_EQ(record.event_type, 0x50300000u);
  EXPECT_EQ(make_event_word(ANNOTATION, 3, annotations::BEGIN), 0x50300000u);
  EXPECT_EQ(make_event_word(CPU, 0x1ff, 0x1fffff), 0x0fffffffu);  // parts are masked
}

TEST(Record, EmptyRecordIs24BytesAndWalks) {
  std::vector<char> bytes(48, 0);
  ZVKRecord* first = reinterpret_cast<ZVKRecord*>(bytes.data());
  first->timestamp = 5;
  ZVKRecord* second = reinterpret_cast<ZVKRecord*>(bytes.data() + 24);
  second->timestamp = 6;
  EXPECT_EQ(record_size(0, 0), 24u);
  const auto records = testing_support::walk_records(bytes.data(), 48);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].timestamp, 5u);
  EXPECT_EQ(records[1].timestamp, 6u);
}

// Sizes reach the record layer as wider integers and nothing checks them: the
// record keeps their low 16 bits, and the buffer advances by the size those bits
// give, so the walk stays in step.
TEST(Record, SizesAreSixteenBitAndCut) {
  static_assert(std::is_same<decltype(ZVKRecord::call_chain_size), uint16_t>::value,
                "call_chain_size is 16 bits");
  static_assert(std::is_same<decltype(ZVKRecord::payload_size), uint16_t>::value,
                "payload_size is 16 bits");
  ZVKQueue<ZVKBuffer> fill(1, 4096), to_write;
  // Sizes as a producer holds them, of things the format can't express.
  const std::vector<CallChain> call_chain(65536 + 1);
  const std::string payload(65536 + 8, 'p');
  ::testing::internal::CaptureStderr();
  {
    ZVKBufferRecordHelper helper(&fill, &to_write);
    auto writer = helper.new_record(9, make_event_word(CPU, 0, 1), 1, 2, call_chain.size(),
                                    payload.size());
    EXPECT_EQ(writer.get_record()->call_chain_size, 1);
    EXPECT_EQ(writer.get_record()->payload_size, 8);
    EXPECT_EQ(static_cast<const char*>(writer.get_payload_store()) -
                  reinterpret_cast<const char*>(writer.get_record()),
              24 + 16);
  }
  ::testing::internal::GetCapturedStderr();
  ZVKBuffer* buffer = nullptr;
  to_write.pop(&buffer);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer->num_bytes, record_size(1, 8));
  const auto records = testing_support::walk_records(buffer->record_buffer, buffer->num_bytes);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].timestamp, 9u);
  EXPECT_EQ(records[0].call_chain_size, 1);
  EXPECT_EQ(records[0].payload_size, 8);
  EXPECT_EQ(record_size(1, 8), 24u + 16u + 8u);
  EXPECT_EQ(record_size(65535, 65535), 1114119u);  // summed in 32 bits
}

TEST(Record, ReservedHardwareRowsStayInTheTable) {
  EXPECT_EQ(GAUDI, 2u);
  EXPECT_EQ(TESSERA, 3u);
  EXPECT_EQ(LUMENIA, 4u);
  EXPECT_EQ(NUM_HW_TYPES, 6u);
}

TEST(Record, EventTypesAreUniqueOnlyWithinAHardwareType) {
  const uint32_t end_annotation = make_event_word(ANNOTATION, 0, annotations::END);
  const uint32_t cpu_sample = make_event_word(CPU, 0, 1);
  EXPECT_EQ(end_annotation & 0xfffff, cpu_sample & 0xfffff);
  EXPECT_NE(end_annotation, cpu_sample);
}

TEST(Record, ReaderHandlesUnalignedRecords) {
  std::vector<char> bytes(64, 0);
  ZVKRecord header{};
  header.timestamp = 77;
  header.event_type = make_event_word(GPU, 0, 9);
  header.pid = 11;
  header.tid = 12;
  header.payload_size = 3;
  std::memcpy(bytes.data() + 3, &header, sizeof(header));
  ZVKRecordReader reader(bytes.data() + 3);
  EXPECT_EQ(reader.timestamp(), 77u);
  EXPECT_EQ(reader.hardware_type(), GPU);
  EXPECT_EQ(reader.event_type(), 9u);
  EXPECT_EQ(reader.pid(), 11u);
  EXPECT_EQ(reader.tid(), 12u);
  EXPECT_EQ(reader.size(), 27u);
}

}  // namespace
}  // namespace zorvek
