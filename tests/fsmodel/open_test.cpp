// Opening files: the name forms the driver uses, missing names and paths, dispositions,
// share access, refusals a test asks for, and the parameter checks of the I/O manager.
#include "model_volume.h"

namespace {

using Opens = ModelVolumeTest;

LONGLONG IndexNumber(HANDLE file) {
  FILE_INTERNAL_INFORMATION internal{};
  EXPECT_EQ(ModelVolumeTest::QueryInformation(file, &internal, FileInternalInformation), STATUS_SUCCESS);
  return internal.IndexNumber.QuadPart;
}

TEST_F(Opens, EveryNameFormOfTheVolumeReachesTheSameFile) {
  ASSERT_EQ(Open(u"\\??\\D:\\Windows", SYNCHRONIZE | FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE,
                 FILE_CREATE, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT)
                .Status,
            STATUS_SUCCESS);
  OpenResult created = Open(u"\\??\\D:\\Windows\\bootstat.dat", GENERIC_READ | SYNCHRONIZE,
                            FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_CREATE);
  ASSERT_EQ(created.Status, STATUS_SUCCESS);
  const LONGLONG index = IndexNumber(created.File.get());
  for (const char16_t* name :
       {u"\\GLOBAL??\\D:\\Windows\\bootstat.dat", u"\\Device\\HarddiskVolume7\\windows\\BOOTSTAT.DAT",
        u"\\??\\Volume{6d3c1a52-1f0e-4b9a-9c3e-5a1b2c3d4e5f}\\Windows\\bootstat.dat", u"\\SystemRoot\\bootstat.dat"}) {
    OpenResult again = Open(name, FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                            FILE_NON_DIRECTORY_FILE);
    ASSERT_EQ(again.Status, STATUS_SUCCESS) << kvhost::ToUtf8(name);
    EXPECT_EQ(again.Information, FILE_OPENED);
    EXPECT_EQ(IndexNumber(again.File.get()), index) << kvhost::ToUtf8(name);
  }

  // A handle to a directory opens what is below it.
  OpenResult directory = Open(u"\\SystemRoot", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN,
                              FILE_DIRECTORY_FILE);
  ASSERT_EQ(directory.Status, STATUS_SUCCESS);
  Text relative(u"bootstat.dat");
  OBJECT_ATTRIBUTES oa;
  InitializeObjectAttributes(&oa, relative.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, directory.File.get(),
                             nullptr);
  Handle below;
  IO_STATUS_BLOCK iosb{};
  ASSERT_EQ(ZwOpenFile(below.put(), FILE_READ_ATTRIBUTES, &oa, &iosb, FILE_SHARE_READ | FILE_SHARE_WRITE, 0),
            STATUS_SUCCESS);
  EXPECT_EQ(IndexNumber(below.get()), index);
}

TEST_F(Opens, MissingNamesAndPathsAreToldApart) {
  EXPECT_EQ(Open(u"\\??\\D:\\nothing.bin", GENERIC_READ | SYNCHRONIZE, 0, FILE_OPEN).Status,
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(Open(u"\\??\\D:\\no dir\\file.bin", GENERIC_READ | SYNCHRONIZE, 0, FILE_OPEN_IF).Status,
            STATUS_OBJECT_PATH_NOT_FOUND);
  EXPECT_EQ(Open(u"\\??\\Q:\\file.bin").Status, STATUS_OBJECT_PATH_NOT_FOUND) << "no volume Q:";
  EXPECT_EQ(Open(u"\\??\\Q:").Status, STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(Open(u"\\NoRoot\\file.bin").Status, STATUS_OBJECT_PATH_NOT_FOUND) << "a missing link of the root";
  EXPECT_EQ(Open(u"\\NoRoot").Status, STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(Open(u"\\??\\D:\\bad<name>.bin").Status, STATUS_OBJECT_NAME_INVALID);
  ASSERT_EQ(Open(u"\\??\\D:\\plain.bin").Status, STATUS_SUCCESS);
  EXPECT_EQ(Open(u"\\??\\D:\\plain.bin\\below.bin").Status, STATUS_OBJECT_PATH_NOT_FOUND) << "a file on the way";
  EXPECT_EQ(Open(u"relative.bin").Status, STATUS_OBJECT_PATH_SYNTAX_BAD);
}

TEST_F(Opens, DispositionsCreateOpenSupersedeAndProtectHiddenSystemFiles) {
  const ULONG hiddenSystem = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
  OpenResult first = Open(u"\\??\\D:\\svi.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ,
                          FILE_SUPERSEDE, FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, hiddenSystem);
  ASSERT_EQ(first.Status, STATUS_SUCCESS);
  EXPECT_EQ(first.Information, FILE_CREATED) << "superseding nothing creates";
  ASSERT_EQ(Write(first.File.get(), Pattern(5000, 1), 0), STATUS_SUCCESS);
  first.File.Close();

  EXPECT_EQ(Open(u"\\??\\D:\\svi.bin", GENERIC_READ | SYNCHRONIZE, 0, FILE_CREATE).Status, STATUS_OBJECT_NAME_COLLISION);
  EXPECT_EQ(Open(u"\\??\\D:\\svi.bin", GENERIC_WRITE | SYNCHRONIZE, 0, FILE_OVERWRITE_IF).Status, STATUS_ACCESS_DENIED)
      << "a hidden system file is replaced only by a create that keeps those attributes";
  OpenResult again = Open(u"\\??\\D:\\svi.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ,
                          FILE_SUPERSEDE, FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, hiddenSystem,
                          6 * kCluster);
  ASSERT_EQ(again.Status, STATUS_SUCCESS);
  EXPECT_EQ(again.Information, FILE_SUPERSEDED);
  FILE_STANDARD_INFORMATION standard{};
  ASSERT_EQ(QueryInformation(again.File.get(), &standard, FileStandardInformation), STATUS_SUCCESS);
  EXPECT_EQ(standard.EndOfFile.QuadPart, 0);
  EXPECT_EQ(standard.AllocationSize.QuadPart, 6 * kCluster) << "the allocation size asked for";
  FILE_BASIC_INFORMATION basic{};
  ASSERT_EQ(QueryInformation(again.File.get(), &basic, FileBasicInformation), STATUS_SUCCESS);
  EXPECT_EQ(basic.FileAttributes & hiddenSystem, hiddenSystem);

  // Directories and files are not taken for each other.
  ASSERT_EQ(Open(u"\\??\\D:\\dir", FILE_LIST_DIRECTORY | SYNCHRONIZE, 0, FILE_CREATE, FILE_DIRECTORY_FILE).Status,
            STATUS_SUCCESS);
  EXPECT_EQ(Open(u"\\??\\D:\\dir").Status, STATUS_FILE_IS_A_DIRECTORY);
  EXPECT_EQ(Open(u"\\??\\D:\\svi.bin", SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_DIRECTORY_FILE)
                .Status,
            STATUS_NOT_A_DIRECTORY);
}

TEST_F(Opens, ShareAccessIsCheckedAsWindowsChecksIt) {
  // The tracking file's open: read and write, shared for reading only.
  OpenResult owner = Open(u"\\??\\D:\\track.bin");
  ASSERT_EQ(owner.Status, STATUS_SUCCESS);
  EXPECT_EQ(Open(u"\\??\\D:\\track.bin", GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN)
                .Status,
            STATUS_SHARING_VIOLATION);
  EXPECT_EQ(Open(u"\\??\\D:\\track.bin", GENERIC_READ | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN).Status,
            STATUS_SHARING_VIOLATION)
      << "a reader must share writing with the writer";
  OpenResult reader =
      Open(u"\\??\\D:\\track.bin", GENERIC_READ | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN);
  EXPECT_EQ(reader.Status, STATUS_SUCCESS);
  EXPECT_EQ(Open(u"\\??\\D:\\track.bin", FILE_READ_ATTRIBUTES, 0, FILE_OPEN, 0).Status, STATUS_SUCCESS)
      << "attributes alone take no part in sharing";
  reader.File.Close();
  owner.File.Close();
  EXPECT_EQ(Open(u"\\??\\D:\\track.bin", GENERIC_WRITE | SYNCHRONIZE, 0, FILE_OPEN).Status, STATUS_SUCCESS)
      << "the shares went with the handles";
}

TEST_F(Opens, RefusalsFailTheOpensATestNames) {
  ASSERT_EQ(Open(u"\\??\\D:\\log.bin").Status, STATUS_SUCCESS);
  kvtestbed::RefuseOpens(disk_, u"\\LOG.bin", STATUS_SHARING_VIOLATION, 2);
  EXPECT_EQ(Open(u"\\??\\D:\\other.bin").Status, STATUS_SUCCESS) << "another path";
  EXPECT_EQ(Open(u"\\??\\D:\\log.bin").Status, STATUS_SHARING_VIOLATION);
  EXPECT_EQ(Open(u"\\Device\\HarddiskVolume7\\log.bin").Status, STATUS_SHARING_VIOLATION);
  EXPECT_EQ(Open(u"\\??\\D:\\log.bin").Status, STATUS_SUCCESS) << "two refusals asked for";

  kvtestbed::RefuseOpens(disk_, u"", STATUS_ACCESS_DENIED, -1);
  EXPECT_EQ(Open(u"\\??\\D:\\log.bin").Status, STATUS_ACCESS_DENIED);
  EXPECT_EQ(Open(u"\\??\\D:\\other.bin").Status, STATUS_ACCESS_DENIED);
  kvtestbed::ClearRefusals(disk_);
  EXPECT_EQ(Open(u"\\??\\D:\\other.bin").Status, STATUS_SUCCESS);
}

TEST_F(Opens, ContradictoryParametersAreRefusedBeforeTheName) {
  const ULONG sync = FILE_SYNCHRONOUS_IO_NONALERT;
  EXPECT_EQ(Open(u"\\??\\D:\\a.bin", GENERIC_READ | SYNCHRONIZE, 0, FILE_OPEN_IF,
                 FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE)
                .Status,
            STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Open(u"\\??\\D:\\a.bin", GENERIC_READ, 0, FILE_OPEN_IF, sync).Status, STATUS_INVALID_PARAMETER)
      << "synchronous I/O needs SYNCHRONIZE";
  EXPECT_EQ(Open(u"\\??\\D:\\a.bin", GENERIC_READ | SYNCHRONIZE, 0, FILE_OPEN_IF, FILE_DELETE_ON_CLOSE).Status,
            STATUS_INVALID_PARAMETER)
      << "delete on close needs DELETE";
  EXPECT_EQ(Open(u"\\??\\D:\\a.bin", FILE_APPEND_DATA | SYNCHRONIZE, 0, FILE_OPEN_IF,
                 sync | FILE_NO_INTERMEDIATE_BUFFERING)
                .Status,
            STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Open(u"\\??\\D:\\dir", SYNCHRONIZE, 0, FILE_SUPERSEDE, FILE_DIRECTORY_FILE).Status,
            STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Open(u"\\??\\D:\\a.bin", GENERIC_READ | SYNCHRONIZE, 0, 6).Status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Open(u"\\??\\D:\\a.bin", GENERIC_READ | SYNCHRONIZE, 0, FILE_OPEN).Status, STATUS_OBJECT_NAME_NOT_FOUND)
      << "none of these created anything";
}

}  // namespace
