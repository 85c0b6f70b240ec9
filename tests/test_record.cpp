#include <gtest/gtest.h>

#include <vector>

#include "tests/test_support.h"
#include "zorv/io/zvkrecord.h"
#include "zorv/zvkannotator.h"

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

TEST(Record, SizesAreSixteenBitAndCut) {
  ZVKRecord record{};
  record.payload_size = static_cast<uint16_t>(65536);
  record.call_chain_size = static_cast<uint16_t>(65537);
  EXPECT_EQ(record.payload_size, 0);
  EXPECT_EQ(record.call_chain_size, 1);
  EXPECT_EQ(record_size(1, 8), 24u + 16u + 8u);
  EXPECT_EQ(record_size(65535, 65535), 1114119u);
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
