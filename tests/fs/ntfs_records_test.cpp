// The reader against records built byte by byte: the update sequence fixup, the file-record
// checks, mapping pairs into a cluster map, and attribute search with its checks and its
// attribute lists, in the record or (read from a volume) outside it. These are the cases a
// damaged disk produces and mkntfs never does.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "fs/cbt_ntfs.h"
#include "fs_volume.h"

namespace kvfs {
namespace {

constexpr ULONG kRecordSize = 1024;

class NtfsRecordsTest : public testing::Test {
 protected:
  void SetUp() override {
    context_.FileRecordSize = kRecordSize;
    context_.BytesPerCluster = 4096;
    context_.TotalClusters = 1000;
    FsRtlInitializeLargeMcb(&mcb_, PagedPool);
  }
  void TearDown() override { FsRtlUninitializeLargeMcb(&mcb_); }

  struct Run {
    LONGLONG Vcn, Lcn, Clusters;
    bool operator==(const Run&) const = default;
  };
  std::vector<Run> Runs() {
    std::vector<Run> runs;
    LONGLONG vcn, lcn, count;
    for (ULONG i = 0; FsRtlGetNextLargeMcbEntry(&mcb_, i, &vcn, &lcn, &count); ++i) runs.push_back({vcn, lcn, count});
    return runs;
  }
  NTSTATUS Decode(std::vector<UCHAR> pairs, LONGLONG lowestVcn = 0) {
    return NtfsAddMappingPairsToMcb(&context_, &mcb_, pairs.data(), static_cast<ULONG>(pairs.size()), lowestVcn);
  }

  NTFS_VOLUME_CONTEXT context_ = {};
  LARGE_MCB mcb_;
};

// ----- A file record built in memory, already fixed up (as after NtfsApplyUpdateSequence).
class RecordBuilder {
 public:
  RecordBuilder() : bytes_(kRecordSize, 0) {
    Put32(0, NTFS_FILE_SIGNATURE);
    Put16(0x04, 0x30);  // update sequence array
    Put16(0x06, kRecordSize / 512 + 1);
    Put16(0x14, 0x38);  // first attribute
    Put32(0x1C, kRecordSize);
    next_ = 0x38;
  }
  // A resident attribute with a value of `value` bytes.
  RecordBuilder& Resident(ULONG type, std::vector<UCHAR> value, const char16_t* name = nullptr) {
    const size_t nameBytes = name != nullptr ? std::char_traits<char16_t>::length(name) * 2 : 0;
    const ULONG valueOffset = static_cast<ULONG>((0x18 + nameBytes + 7) & ~size_t{7});
    const ULONG length = static_cast<ULONG>((valueOffset + value.size() + 7) & ~size_t{7});
    Header(type, length, NTFS_RESIDENT_FORM, name);
    Put32(next_ + 0x10, static_cast<ULONG>(value.size()));
    Put16(next_ + 0x14, static_cast<USHORT>(valueOffset));
    std::copy(value.begin(), value.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(next_ + valueOffset));
    next_ += length;
    return *this;
  }
  RecordBuilder& Nonresident(ULONG type, std::vector<UCHAR> pairs, UCHAR compressionUnit = 0,
                             const char16_t* name = nullptr) {
    const size_t nameBytes = name != nullptr ? std::char_traits<char16_t>::length(name) * 2 : 0;
    const ULONG pairsOffset = static_cast<ULONG>((0x40 + nameBytes + 7) & ~size_t{7});
    const ULONG length = static_cast<ULONG>((pairsOffset + pairs.size() + 7) & ~size_t{7});
    Header(type, length, NTFS_NONRESIDENT_FORM, name);
    Put64(next_ + 0x18, 0x2F);  // highest VCN
    Put16(next_ + 0x20, static_cast<USHORT>(pairsOffset));
    bytes_[next_ + 0x22] = compressionUnit;
    Put64(next_ + 0x28, 0x30000);
    Put64(next_ + 0x30, 0x30000);
    Put64(next_ + 0x38, 0x30000);
    std::copy(pairs.begin(), pairs.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(next_ + pairsOffset));
    next_ += length;
    return *this;
  }
  RecordBuilder& End() {
    Put32(next_, NTFS_END_OF_ATTRIBUTES);
    return *this;
  }
  size_t Next() const { return next_; }
  void Put16(size_t at, USHORT v) { std::memcpy(&bytes_[at], &v, 2); }
  void Put32(size_t at, ULONG v) { std::memcpy(&bytes_[at], &v, 4); }
  void Put64(size_t at, ULONGLONG v) { std::memcpy(&bytes_[at], &v, 8); }
  std::vector<UCHAR>& Bytes() { return bytes_; }

 private:
  void Header(ULONG type, ULONG length, UCHAR form, const char16_t* name) {
    Put32(next_, type);
    Put32(next_ + 4, length);
    bytes_[next_ + 8] = form;
    if (name != nullptr) {
      const size_t chars = std::char_traits<char16_t>::length(name);
      bytes_[next_ + 9] = static_cast<UCHAR>(chars);
      const USHORT nameOffset = form == NTFS_RESIDENT_FORM ? 0x18 : 0x40;
      Put16(next_ + 0x0A, nameOffset);
      std::memcpy(&bytes_[next_ + nameOffset], name, chars * 2);
    }
  }

  std::vector<UCHAR> bytes_;
  size_t next_;
};

// One attribute-list entry naming an attribute in segment `segment` (sequence 0), 0x20 bytes
// long whatever record length it states.
std::vector<UCHAR> ListEntry(ULONG type, ULONGLONG segment, USHORT length = 0x20) {
  std::vector<UCHAR> entry(length > 0x20 ? length : 0x20, 0);
  std::memcpy(&entry[0], &type, 4);
  std::memcpy(&entry[4], &length, 2);
  entry[7] = 0x1A;
  std::memcpy(&entry[0x10], &segment, 8);
  return entry;
}

std::vector<UCHAR> Concat(std::initializer_list<std::vector<UCHAR>> parts) {
  std::vector<UCHAR> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// ----- Update sequence.

std::vector<UCHAR> ProtectedRecord(USHORT usn) {
  std::vector<UCHAR> record(kRecordSize, 0x11);
  record[4] = 0x30;
  record[5] = 0;
  record[6] = 3;
  record[7] = 0;
  record[0x30] = static_cast<UCHAR>(usn);
  record[0x31] = static_cast<UCHAR>(usn >> 8);
  for (int i = 1; i <= 2; ++i) {
    record[0x30 + 2 * i] = static_cast<UCHAR>(0xA0 + i);  // the bytes that belong at the stride's end
    record[0x31 + 2 * i] = static_cast<UCHAR>(0xB0 + i);
    record[i * 512 - 2] = static_cast<UCHAR>(usn);
    record[i * 512 - 1] = static_cast<UCHAR>(usn >> 8);
  }
  return record;
}

TEST(NtfsUpdateSequenceTest, RestoresEveryStrideAndRefusesTornOrOversizedOnes) {
  std::vector<UCHAR> record = ProtectedRecord(0x1234);
  ASSERT_EQ(NtfsApplyUpdateSequence(record.data(), kRecordSize), STATUS_SUCCESS);
  EXPECT_EQ(record[510], 0xA1);
  EXPECT_EQ(record[511], 0xB1);
  EXPECT_EQ(record[1022], 0xA2);
  EXPECT_EQ(record[1023], 0xB2);

  // A stride whose end does not carry the number was torn: the record is corrupt.
  record = ProtectedRecord(0x1234);
  record[1023] = 0x99;
  EXPECT_EQ(NtfsApplyUpdateSequence(record.data(), kRecordSize), STATUS_FILE_CORRUPT_ERROR);
  EXPECT_EQ(record[510], 0xA1) << "strides before the torn one stay restored";

  record = ProtectedRecord(1);
  record[4] = 0x31;  // odd array offset
  EXPECT_EQ(NtfsApplyUpdateSequence(record.data(), kRecordSize), STATUS_FILE_CORRUPT_ERROR);
  record = ProtectedRecord(1);
  record[6] = 0;  // count 0: no strides at all
  EXPECT_EQ(NtfsApplyUpdateSequence(record.data(), kRecordSize), STATUS_FILE_CORRUPT_ERROR);
  record = ProtectedRecord(1);
  record[6] = 9;  // eight strides claimed in 1,024 bytes
  EXPECT_EQ(NtfsApplyUpdateSequence(record.data(), kRecordSize), STATUS_FILE_CORRUPT_ERROR);
}

TEST_F(NtfsRecordsTest, FileRecordChecksFollowTheHeader) {
  RecordBuilder good;
  good.End();
  EXPECT_TRUE(NtfsCheckFileRecord(&context_, good.Bytes().data()));
  struct Damage {
    size_t At;
    ULONG Value;
    int Bytes;
  };
  for (Damage d : {Damage{0, 0x44414142, 4}, Damage{0x04, 500, 2}, Damage{0x06, 4, 2}, Damage{0x14, 1, 2},
                   Damage{0x14, kRecordSize - 23, 2}, Damage{0x1C, 4096, 4}}) {
    RecordBuilder bad;
    if (d.Bytes == 2)
      bad.Put16(d.At, static_cast<USHORT>(d.Value));
    else
      bad.Put32(d.At, d.Value);
    EXPECT_FALSE(NtfsCheckFileRecord(&context_, bad.Bytes().data())) << "field at " << d.At;
  }
}

// ----- Mapping pairs.

TEST_F(NtfsRecordsTest, MappingPairsBecomeRunsAndSparseRunsHoles) {
  // 0x30 clusters at LCN 0x20; then 16 sparse clusters; then 8 clusters 0x10 further on.
  ASSERT_EQ(Decode({0x11, 0x30, 0x20, 0x01, 0x10, 0x11, 0x08, 0x10, 0x00}), STATUS_SUCCESS);
  EXPECT_EQ(Runs(), (std::vector<Run>{{0, 0x20, 0x30}, {0x30, -1, 0x10}, {0x40, 0x30, 8}}));

  // A negative offset goes back; a list decoded from a later lowest VCN starts there.
  FsRtlResetLargeMcb(&mcb_, FALSE);
  ASSERT_EQ(Decode({0x21, 0x04, 0x00, 0x02, 0x11, 0x04, 0xFE, 0x00}, 0x100), STATUS_SUCCESS);
  EXPECT_EQ(Runs(), (std::vector<Run>{{0, -1, 0x100}, {0x100, 0x200, 4}, {0x104, 0x1FE, 4}}));
}

TEST_F(NtfsRecordsTest, MalformedPairsAreCorrupt) {
  const std::vector<std::vector<UCHAR>> bad = {
      {0x09, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0},  // length of 9 bytes
      {0x90, 0x10, 0x00},                       // negative offset size
      {0x10, 0x00},                             // no length
      {0x11, 0x80, 0x01, 0x00},                 // negative run length
      {0x11, 0x10, 0x05},                       // the pair and its follower do not fit
      {},                                       // nothing at all
  };
  for (size_t i = 0; i < bad.size(); ++i) {
    FsRtlResetLargeMcb(&mcb_, FALSE);
    EXPECT_EQ(Decode(bad[i]), STATUS_FILE_CORRUPT_ERROR) << "case " << i;
  }
  // A run may start at the last cluster number of the volume, not beyond.
  FsRtlResetLargeMcb(&mcb_, FALSE);
  EXPECT_EQ(Decode({0x21, 0x01, 0xE8, 0x03, 0x00}), STATUS_SUCCESS);  // LCN 1000 = TotalClusters
  FsRtlResetLargeMcb(&mcb_, FALSE);
  EXPECT_EQ(Decode({0x21, 0x01, 0xE9, 0x03, 0x00}), STATUS_FILE_CORRUPT_ERROR);
  // Lengths and offsets that overflow 64 bits do not wrap into a valid map.
  FsRtlResetLargeMcb(&mcb_, FALSE);
  EXPECT_EQ(Decode({0x18, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x18, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                    0xFF, 0x7F, 0x11, 0x01, 0x01, 0x00}),
            STATUS_FILE_CORRUPT_ERROR);
}

TEST_F(NtfsRecordsTest, ALaterRunReplacesWhatTheMapSaidBefore) {
  ASSERT_EQ(NtfsSetMcbEntry(&mcb_, 0, 500, 10), STATUS_SUCCESS);
  ASSERT_EQ(NtfsSetMcbEntry(&mcb_, 4, 700, 2), STATUS_SUCCESS);
  EXPECT_EQ(Runs(), (std::vector<Run>{{0, 500, 4}, {4, 700, 2}, {6, 506, 4}}));
  EXPECT_EQ(NtfsSetMcbEntry(&mcb_, 20, 10, 0), STATUS_FILE_CORRUPT_ERROR) << "an empty run maps nothing";
}

// ----- Attribute search.

TEST_F(NtfsRecordsTest, SearchFindsAttributesByTypeInOrderThenNotFound) {
  RecordBuilder record;
  record.Resident(NTFS_STANDARD_INFORMATION, std::vector<UCHAR>(0x48, 1))
      .Resident(NTFS_FILE_NAME, std::vector<UCHAR>(0x44, 2))
      .Nonresident(NTFS_DATA, {0x11, 0x30, 0x20, 0x00}, 0, u"$Bad")
      .Nonresident(NTFS_DATA, {0x11, 0x30, 0x20, 0x00})
      .End();
  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  PATTRIBUTE_RECORD_HEADER attribute;
  ASSERT_EQ(NtfsFindResidentAttribute(&context_, record.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_SUCCESS);
  EXPECT_EQ(attribute->NameLength, 4);
  ASSERT_EQ(NtfsFindResidentAttribute(&context_, record.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_SUCCESS);
  EXPECT_EQ(attribute->NameLength, 0);
  EXPECT_EQ(NtfsFindResidentAttribute(&context_, record.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_NOT_FOUND);
  NtfsFreeAttributeContext(&search);

  // A name asked for matches that name exactly (case counts), or an unnamed attribute.
  UNICODE_STRING bad = RTL_CONSTANT_STRING(L"$Bad");
  UNICODE_STRING other = RTL_CONSTANT_STRING(L"$BAD");
  for (PCUNICODE_STRING name : {&bad, &other}) {
    NtfsInitAttributeContext(&search);
    search.Record = record.Bytes().data();
    search.NextAttribute = search.Record + 0x38;
    search.RecordEnd = search.Record + kRecordSize;
    ASSERT_EQ(NtfsFindInFileRecord(&context_, NTFS_DATA, name, &search, &attribute), STATUS_SUCCESS);
    EXPECT_EQ(attribute->NameLength, name == &bad ? 4 : 0);
  }
}

TEST_F(NtfsRecordsTest, AttributeChecksRefuseWhatCannotBeReadSafely) {
  struct Case {
    const char* What;
    std::function<void(RecordBuilder&, size_t)> Damage;
    NTSTATUS Expected;
  };
  const std::vector<Case> cases = {
      {"record length 0", [](RecordBuilder& r, size_t a) { r.Put32(a + 4, 0); }, STATUS_FILE_CORRUPT_ERROR},
      {"runs past the record", [](RecordBuilder& r, size_t a) { r.Put32(a + 4, kRecordSize - 8); },
       STATUS_FILE_CORRUPT_ERROR},
      {"shorter than its header", [](RecordBuilder& r, size_t a) { r.Put32(a + 4, 0x20); }, STATUS_FILE_CORRUPT_ERROR},
      {"name past the attribute", [](RecordBuilder& r, size_t a) { r.Bytes()[a + 9] = 0x40; },
       STATUS_FILE_CORRUPT_ERROR},
      {"compressed", [](RecordBuilder& r, size_t a) { r.Bytes()[a + 0x22] = 4; }, NTFS_STATUS_COMPRESSED_ATTRIBUTE},
      {"lowest VCN above highest + 1", [](RecordBuilder& r, size_t a) { r.Put64(a + 0x10, 0x31); },
       STATUS_FILE_CORRUPT_ERROR},
      {"mapping pairs past the attribute", [](RecordBuilder& r, size_t a) { r.Put16(a + 0x20, 0x100); },
       STATUS_FILE_CORRUPT_ERROR},
      {"valid data beyond the size", [](RecordBuilder& r, size_t a) { r.Put64(a + 0x38, 0x30001); },
       STATUS_FILE_CORRUPT_ERROR},
      {"size beyond the allocation", [](RecordBuilder& r, size_t a) { r.Put64(a + 0x30, 0x30001); },
       STATUS_FILE_CORRUPT_ERROR},
      {"non-resident index root", [](RecordBuilder& r, size_t a) { r.Put32(a, NTFS_INDEX_ROOT); },
       STATUS_FILE_CORRUPT_ERROR},
      {"no end marker before the record's end",
       [](RecordBuilder& r, size_t a) {
         r.Put32(a + 0x48, 0x70);
         r.Put32(a + 0x4C, static_cast<ULONG>(kRecordSize - 4 - (a + 0x48)));
       },
       STATUS_FILE_CORRUPT_ERROR},
  };
  for (const Case& c : cases) {
    RecordBuilder record;
    record.Resident(NTFS_STANDARD_INFORMATION, std::vector<UCHAR>(0x48, 1));
    const size_t at = record.Next();
    record.Nonresident(NTFS_DATA, {0x11, 0x30, 0x20, 0x00}).End();
    c.Damage(record, at);
    NTFS_ATTRIBUTE_CONTEXT search;
    NtfsInitAttributeContext(&search);
    PATTRIBUTE_RECORD_HEADER attribute;
    // A type the record does not have: the search checks every attribute on its way.
    EXPECT_EQ(NtfsFindResidentAttribute(&context_, record.Bytes().data(), 0xC0, &search, &attribute), c.Expected)
        << c.What;
    NtfsFreeAttributeContext(&search);
  }

  // Resident values must lie in their attribute; the file name must be resident.
  RecordBuilder resident;
  const size_t at = resident.Next();
  resident.Resident(NTFS_VOLUME_NAME, std::vector<UCHAR>(8, 'a')).End();
  resident.Put32(at + 0x10, 0x30);
  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  PATTRIBUTE_RECORD_HEADER attribute;
  EXPECT_EQ(NtfsFindResidentAttribute(&context_, resident.Bytes().data(), NTFS_VOLUME_NAME, &search, &attribute),
            STATUS_FILE_CORRUPT_ERROR);
  NtfsFreeAttributeContext(&search);
}

// An attribute list in the base record leads the search; entries that name the record
// already at hand are searched there without a read.
TEST_F(NtfsRecordsTest, AResidentAttributeListIsWalkedEntryByEntry) {
  RecordBuilder record;
  record.Resident(NTFS_STANDARD_INFORMATION, std::vector<UCHAR>(0x48, 1))
      .Resident(NTFS_ATTRIBUTE_LIST, Concat({ListEntry(NTFS_STANDARD_INFORMATION, 0), ListEntry(NTFS_DATA, 0),
                                              ListEntry(NTFS_DATA, 0)}))
      .Nonresident(NTFS_DATA, {0x11, 0x30, 0x20, 0x00})
      .End();
  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  PATTRIBUTE_RECORD_HEADER attribute;
  ASSERT_EQ(NtfsFindResidentAttribute(&context_, record.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_SUCCESS);
  EXPECT_EQ(attribute->TypeCode, NTFS_DATA);
  EXPECT_NE(search.AttributeList, nullptr);
  // The second $DATA entry finds no further $DATA in the record after the first.
  EXPECT_EQ(NtfsFindResidentAttribute(&context_, record.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_NOT_FOUND);
  NtfsFreeAttributeContext(&search);

  struct Case {
    std::vector<UCHAR> List;
    NTSTATUS Expected;
    const char* What;
  };
  std::vector<UCHAR> shortEntry = ListEntry(NTFS_DATA, 0);
  shortEntry.resize(0x10);
  std::vector<UCHAR> tinyLength = ListEntry(NTFS_DATA, 0);
  tinyLength[4] = 0x08;
  std::vector<UCHAR> longName = ListEntry(NTFS_DATA, 0);
  longName[6] = 0x20;
  const std::vector<Case> cases = {
      {ListEntry(NTFS_DATA, 0, 0), STATUS_NOT_FOUND, "record length 0 ends the list"},
      {ListEntry(NTFS_END_OF_ATTRIBUTES, 0), STATUS_NOT_FOUND, "end type"},
      {shortEntry, STATUS_FILE_CORRUPT_ERROR, "entry cut off by the list's end"},
      {tinyLength, STATUS_FILE_CORRUPT_ERROR, "entry shorter than an entry"},
      {longName, STATUS_FILE_CORRUPT_ERROR, "name past the entry"},
  };
  for (const Case& c : cases) {
    RecordBuilder damaged;
    damaged.Resident(NTFS_ATTRIBUTE_LIST, c.List).Nonresident(NTFS_DATA, {0x11, 0x30, 0x20, 0x00}).End();
    NtfsInitAttributeContext(&search);
    EXPECT_EQ(NtfsFindResidentAttribute(&context_, damaged.Bytes().data(), NTFS_DATA, &search, &attribute), c.Expected)
        << c.What;
    NtfsFreeAttributeContext(&search);
  }
}

// A list too long for its record is kept in clusters of its own and read from the volume
// before it is walked; only its valid bytes are the list, and a list longer than NTFS ever
// makes one (256 KiB) is refused before anything is read. The base record is built here, the
// list lies on a real volume (on $LogFile's clusters, which this test does not otherwise
// read), and its last entry names $LogFile's record, which the walk reads through $MFT's map.
class NtfsListOutsideTheRecordTest : public FsMachineTest {
 protected:
  static constexpr ULONG kListCap = 256 * 1024;
  static constexpr ULONG kEntry = 0x20;

  void SetUp() override {
    image_ = NtfsImage({.ClusterSize = 4096, .Label = "Lists"});
    layout_ = ReadLogFileLayout(image_);
    ASSERT_FALSE(layout_.Runs.empty());
    ASSERT_GE(layout_.Runs[0].Clusters * 4096, kListCap + 4096);
    ASSERT_LT(layout_.Runs[0].Lcn, 0x8000);
    volume_ = BootOne({.Image = image_}, false);
    ASSERT_EQ(NtfsInitialize(volume_->Device(), 0, volume_->Number(), u'L', &context_), STATUS_SUCCESS);
    ASSERT_EQ(context_.FileRecordSize, kRecordSize);
    // Entries the search for $DATA passes over, then the one it looks for.
    std::vector<UCHAR> list;
    for (ULONG i = 0; i + 1 < kListCap / kEntry; ++i) {
      const std::vector<UCHAR> filler = ListEntry(0x50, 0);
      list.insert(list.end(), filler.begin(), filler.end());
    }
    const std::vector<UCHAR> data = ListEntry(NTFS_DATA, NTFS_LOG_FILE_REFERENCE);
    list.insert(list.end(), data.begin(), data.end());
    volume_->WriteDirect(static_cast<uint64_t>(layout_.Runs[0].Lcn) * 4096, list);
  }
  void TearDown() override {
    if (context_.Initialized) NtfsUninitialize(&context_);
    FsMachineTest::TearDown();
  }

  // A base record whose list has `valid` bytes in `clusters` clusters from the log's first.
  RecordBuilder BaseRecord(ULONGLONG valid, UCHAR clusters) {
    const LONGLONG lcn = layout_.Runs[0].Lcn;
    RecordBuilder record;
    record.Resident(NTFS_STANDARD_INFORMATION, std::vector<UCHAR>(0x48, 1));
    const size_t at = record.Next();
    record.Nonresident(NTFS_ATTRIBUTE_LIST, {0x21, clusters, static_cast<UCHAR>(lcn), static_cast<UCHAR>(lcn >> 8), 0})
        .End();
    record.Put64(at + 0x18, clusters - 1u);      // highest VCN
    record.Put64(at + 0x28, clusters * 4096ull);  // allocated
    record.Put64(at + 0x30, clusters * 4096ull);  // size
    record.Put64(at + 0x38, valid);
    return record;
  }

  std::string image_;
  LogFileLayout layout_;
  kvtestbed::Volume* volume_ = nullptr;
  NTFS_VOLUME_CONTEXT context_ = {};
};

TEST_F(NtfsListOutsideTheRecordTest, AListUpToTheCapIsReadAndWalked) {
  RecordBuilder base = BaseRecord(kListCap, kListCap / 4096);
  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  PATTRIBUTE_RECORD_HEADER attribute;
  ASSERT_EQ(NtfsFindResidentAttribute(&context_, base.Bytes().data(), NTFS_DATA, &search, &attribute), STATUS_SUCCESS);
  EXPECT_NE(search.ListBuffer, nullptr);
  EXPECT_EQ(search.ListEnd - search.ListStart, static_cast<ptrdiff_t>(kListCap));
  EXPECT_EQ(search.LoadedReference, NTFS_LOG_FILE_REFERENCE);
  ASSERT_EQ(attribute->FormCode, NTFS_NONRESIDENT_FORM);
  EXPECT_EQ(attribute->Form.Nonresident.FileSize, layout_.Size) << "$LogFile's own $DATA";
  EXPECT_EQ(NtfsFindResidentAttribute(&context_, base.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_NOT_FOUND);
  NtfsFreeAttributeContext(&search);

  // Only the valid bytes are the list: one entry short, the $DATA entry is not in it.
  base = BaseRecord(kListCap - kEntry, kListCap / 4096);
  NtfsInitAttributeContext(&search);
  EXPECT_EQ(NtfsFindResidentAttribute(&context_, base.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_NOT_FOUND);
  NtfsFreeAttributeContext(&search);
}

TEST_F(NtfsListOutsideTheRecordTest, AListOverTheCapOrUnreadableFailsAndLeavesNothing) {
  RecordBuilder over = BaseRecord(kListCap + kEntry, kListCap / 4096 + 1);
  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  PATTRIBUTE_RECORD_HEADER attribute;
  const uint64_t reads = volume_->Counters().Reads;
  EXPECT_EQ(NtfsFindResidentAttribute(&context_, over.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_FILE_CORRUPT_ERROR);
  EXPECT_EQ(volume_->Counters().Reads, reads) << "refused before it is read";
  EXPECT_EQ(search.ListBuffer, nullptr);
  NtfsFreeAttributeContext(&search);

  RecordBuilder base = BaseRecord(kListCap, kListCap / 4096);
  volume_->FailTransfers(STATUS_DEVICE_DATA_ERROR, 1, kvtestbed::TransferKind::Reads);
  NtfsInitAttributeContext(&search);
  EXPECT_EQ(NtfsFindResidentAttribute(&context_, base.Bytes().data(), NTFS_DATA, &search, &attribute),
            STATUS_DEVICE_DATA_ERROR);
  EXPECT_EQ(search.ListBuffer, nullptr);
  NtfsFreeAttributeContext(&search);
}

TEST_F(NtfsRecordsTest, ResidentValuesAreCopiedAndEmptyOnesAreNull) {
  RecordBuilder record;
  record.Resident(NTFS_VOLUME_NAME, {'L', 0, 'b', 0}).Resident(NTFS_VOLUME_NAME, {}).End();
  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  PATTRIBUTE_RECORD_HEADER attribute;
  PVOID value;
  ULONG length;
  ASSERT_EQ(NtfsFindResidentAttribute(&context_, record.Bytes().data(), NTFS_VOLUME_NAME, &search, &attribute),
            STATUS_SUCCESS);
  ASSERT_EQ(NtfsQueryResidentAttributeValue(&context_, attribute, &value, &length), STATUS_SUCCESS);
  ASSERT_EQ(length, 4u);
  EXPECT_EQ(std::memcmp(value, "L\0b\0", 4), 0);
  ExFreePoolWithTag(value, NTFS_POOL_TAG);
  ASSERT_EQ(NtfsFindResidentAttribute(&context_, record.Bytes().data(), NTFS_VOLUME_NAME, &search, &attribute),
            STATUS_SUCCESS);
  ASSERT_EQ(NtfsQueryResidentAttributeValue(&context_, attribute, &value, &length), STATUS_SUCCESS);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(value, nullptr);
  NtfsFreeAttributeContext(&search);
}

}  // namespace
}  // namespace kvfs
