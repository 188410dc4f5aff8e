// Where a file lies: the retrieval pointers of contiguous, fragmented and moved files, raw
// reads at the reported clusters, and answers that do not fit the caller's buffer.
#include "model_volume.h"

namespace {

const RETRIEVAL_POINTERS_BUFFER& Answer(const std::vector<unsigned char>& bytes) {
  return *reinterpret_cast<const RETRIEVAL_POINTERS_BUFFER*>(bytes.data());
}

class FileLocation : public ModelVolumeTest {
 protected:
  // Each extent's clusters, read raw, hold the file's bytes for those clusters.
  void ExpectRawBytesAt(const RETRIEVAL_POINTERS_BUFFER& answer, const std::vector<unsigned char>& data) {
    LONGLONG vcn = answer.StartingVcn.QuadPart;
    for (ULONG i = 0; i < answer.ExtentCount; ++i) {
      const LONGLONG clusters = answer.Extents[i].NextVcn.QuadPart - vcn;
      const std::vector<unsigned char> raw =
          RawRead(answer.Extents[i].Lcn.QuadPart * kCluster, static_cast<ULONG>(clusters * kCluster));
      const std::vector<unsigned char> expected(data.begin() + vcn * kCluster, data.begin() + (vcn + clusters) * kCluster);
      EXPECT_TRUE(raw == expected) << "extent " << i << " at LCN " << answer.Extents[i].Lcn.QuadPart;
      vcn = answer.Extents[i].NextVcn.QuadPart;
    }
  }
};

TEST_F(FileLocation, AContiguousFileIsOneExtentWhoseClustersHoldItsBytes) {
  const std::vector<unsigned char> data = Pattern(10 * kCluster, 3);
  OpenResult file = Open(u"\\??\\D:\\data.bin");
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  EXPECT_EQ(file.Information, FILE_CREATED);
  ASSERT_EQ(Write(file.File.get(), data, 0), STATUS_SUCCESS);

  std::vector<unsigned char> answer;
  ULONG_PTR information = 0;
  ASSERT_EQ(RetrievalPointers(file.File.get(), 0, &answer, 4096, &information), STATUS_SUCCESS);
  EXPECT_EQ(Answer(answer).ExtentCount, 1u);
  EXPECT_EQ(Answer(answer).StartingVcn.QuadPart, 0);
  EXPECT_EQ(Answer(answer).Extents[0].NextVcn.QuadPart, 10);
  EXPECT_GT(Answer(answer).Extents[0].Lcn.QuadPart, 0) << "cluster 0 holds the boot record";
  EXPECT_EQ(information, 32u);
  ExpectRawBytesAt(Answer(answer), data);

  // A starting VCN inside the run gives the whole run; one past the file, end of file.
  ASSERT_EQ(RetrievalPointers(file.File.get(), 7, &answer, 4096), STATUS_SUCCESS);
  EXPECT_EQ(Answer(answer).StartingVcn.QuadPart, 0);
  EXPECT_EQ(RetrievalPointers(file.File.get(), 10, &answer, 4096), STATUS_END_OF_FILE);
  EXPECT_EQ(RetrievalPointers(file.File.get(), 0, &answer, 31), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(RetrievalPointers(file.File.get(), -1, &answer, 4096), STATUS_INVALID_PARAMETER);

  OpenResult empty = Open(u"\\??\\D:\\empty.bin");
  ASSERT_EQ(empty.Status, STATUS_SUCCESS);
  EXPECT_EQ(RetrievalPointers(empty.File.get(), 0, &answer, 4096), STATUS_END_OF_FILE) << "no clusters at all";
}

TEST_F(FileLocation, AFragmentedFileIsSeveralExtentsEachHoldingItsPart) {
  const std::vector<unsigned char> data = Pattern(12 * kCluster, 11);
  OpenResult file = Open(u"\\??\\D:\\frag.bin");
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  ASSERT_EQ(Write(file.File.get(), data, 0), STATUS_SUCCESS);
  ASSERT_EQ(model_->FragmentFile(u"\\frag.bin", 3), STATUS_SUCCESS);

  std::vector<unsigned char> answer;
  ASSERT_EQ(RetrievalPointers(file.File.get(), 0, &answer, 4096), STATUS_SUCCESS);
  const RETRIEVAL_POINTERS_BUFFER& pointers = Answer(answer);
  ASSERT_EQ(pointers.ExtentCount, 3u);
  EXPECT_EQ(pointers.Extents[2].NextVcn.QuadPart, 12);
  for (ULONG i = 1; i < 3; ++i) {
    const LONGLONG previousEnd =
        pointers.Extents[i - 1].Lcn.QuadPart + pointers.Extents[i - 1].NextVcn.QuadPart -
        (i == 1 ? pointers.StartingVcn.QuadPart : pointers.Extents[i - 2].NextVcn.QuadPart);
    EXPECT_NE(pointers.Extents[i].Lcn.QuadPart, previousEnd) << "extents " << i - 1 << " and " << i << " touch";
  }
  ExpectRawBytesAt(pointers, data);
  EXPECT_TRUE(Read(file.File.get(), 12 * kCluster, 0) == data) << "the file reads as before";
}

TEST_F(FileLocation, AnAnswerOfManyFragmentsOverflowsWithTheExtentsThatFit) {
  // 300 single-cluster fragments: a 4,100-byte answer holds 255 of them (and 4 bytes over).
  model_->FragmentNewAllocations(300);
  OpenResult file = Open(u"\\??\\D:\\many.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ,
                         FILE_CREATE, FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, FILE_ATTRIBUTE_NORMAL,
                         300 * kCluster);
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  model_->FragmentNewAllocations(1);
  ASSERT_EQ(model_->ExtentsOf(u"\\many.bin").size(), 300u);

  std::vector<unsigned char> answer;
  ULONG_PTR information = 0;
  ASSERT_EQ(RetrievalPointers(file.File.get(), 0, &answer, 4100, &information), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(Answer(answer).ExtentCount, 255u);
  EXPECT_EQ(information, 16u + 255u * 16u);
  const LONGLONG next = Answer(answer).Extents[254].NextVcn.QuadPart;
  EXPECT_EQ(next, 255);
  EXPECT_EQ(answer[information], 0xCC) << "nothing written past the extents that fit";

  // The rest, from where the first answer stopped; or everything in a buffer twice as large.
  ASSERT_EQ(RetrievalPointers(file.File.get(), next, &answer, 4096), STATUS_SUCCESS);
  EXPECT_EQ(Answer(answer).ExtentCount, 45u);
  EXPECT_EQ(Answer(answer).StartingVcn.QuadPart, 255);
  ASSERT_EQ(RetrievalPointers(file.File.get(), 0, &answer, 8192), STATUS_SUCCESS);
  EXPECT_EQ(Answer(answer).ExtentCount, 300u);
}

TEST_F(FileLocation, AMovedFileIsFoundAtItsNewClustersButNotWhileAHandleProtectsThem) {
  const std::vector<unsigned char> data = Pattern(3 * kCluster, 5);
  OpenResult file = Open(u"\\??\\D:\\pinned.bin");
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  ASSERT_EQ(Write(file.File.get(), data, 0), STATUS_SUCCESS);
  MARK_HANDLE_INFO mark{};
  mark.HandleInfo = MARK_HANDLE_PROTECT_CLUSTERS;
  ASSERT_EQ(FsControl(file.File.get(), FSCTL_MARK_HANDLE, &mark, sizeof mark, nullptr, 0), STATUS_SUCCESS);
  const LONGLONG before = model_->ExtentsOf(u"\\pinned.bin").at(0).Lcn;
  EXPECT_EQ(model_->MoveFile(u"\\pinned.bin", 1500), STATUS_ACCESS_DENIED);
  EXPECT_EQ(model_->FragmentFile(u"\\pinned.bin", 2), STATUS_ACCESS_DENIED);

  file.File.Close();  // the mark goes with the handle
  ASSERT_EQ(model_->MoveFile(u"\\pinned.bin", 1500), STATUS_SUCCESS);
  EXPECT_EQ(model_->MoveFile(u"\\pinned.bin", 1501), STATUS_ALREADY_COMMITTED) << "its own clusters are in use";
  OpenResult again = Open(u"\\Device\\HarddiskVolume7\\pinned.bin");
  ASSERT_EQ(again.Status, STATUS_SUCCESS);
  std::vector<unsigned char> answer;
  ASSERT_EQ(RetrievalPointers(again.File.get(), 0, &answer, 4096), STATUS_SUCCESS);
  EXPECT_EQ(Answer(answer).Extents[0].Lcn.QuadPart, 1500);
  EXPECT_NE(before, 1500);
  ExpectRawBytesAt(Answer(answer), data);
}

}  // namespace
