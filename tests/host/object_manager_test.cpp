// Object references, handles and names as the driver relies on them.
#include <gtest/gtest.h>
#include <wdm.h>

#include "kvhost/object.h"
#include "kvhost/verifier.h"

namespace {

int g_deleted = 0;
_OBJECT_TYPE g_sampleType{"Sample", [](PVOID) { ++g_deleted; }, nullptr};

TEST(ObjectManager, LastReferenceDeletesThroughHandleAndPointer) {
  g_deleted = 0;
  PVOID obj = kvhost::ObCreateObject(&g_sampleType, 32, u"\\Device\\Sample0");
  ASSERT_NE(obj, nullptr);
  HANDLE h = kvhost::ObCreateHandle(obj);
  EXPECT_EQ(kvhost::ObGetReferenceCount(obj), 2);
  PVOID byHandle = nullptr;
  ASSERT_EQ(ObReferenceObjectByHandle(h, 0, &g_sampleType, KernelMode, &byHandle, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(byHandle, obj);
  EXPECT_EQ(ObReferenceObjectByHandle(h, 0, *PsThreadType, KernelMode, &byHandle, nullptr),
            STATUS_OBJECT_TYPE_MISMATCH);
  ObDereferenceObject(obj);  // the by-handle reference
  ObDereferenceObject(obj);  // the creation reference
  EXPECT_EQ(g_deleted, 0) << "the handle still holds the object";
  EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
  EXPECT_EQ(g_deleted, 1);
  EXPECT_EQ(kvhost::ObLookupObjectByName(u"\\Device\\Sample0"), nullptr) << "a deleted object leaves the namespace";
}

TEST(ObjectManager, NameQueryProbesWithLengthMismatchThenFills) {
  PVOID obj = kvhost::ObCreateObject(&g_sampleType, 8, u"\\Device\\HarddiskVolume12");
  ULONG needed = 0;
  EXPECT_EQ(ObQueryNameString(obj, nullptr, 0, &needed), STATUS_INFO_LENGTH_MISMATCH);
  EXPECT_EQ(needed, sizeof(OBJECT_NAME_INFORMATION) + 24 * sizeof(WCHAR) + sizeof(WCHAR));
  std::vector<unsigned char> buffer(needed - 1);
  EXPECT_EQ(ObQueryNameString(obj, reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer.data()), needed - 1, &needed),
            STATUS_INFO_LENGTH_MISMATCH);
  buffer.resize(needed);
  auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer.data());
  ASSERT_EQ(ObQueryNameString(obj, info, needed, &needed), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::ToUtf8(&info->Name), "\\Device\\HarddiskVolume12");
  EXPECT_EQ(info->Name.Buffer[info->Name.Length / 2], 0) << "the name is NUL-terminated";
  ObDereferenceObject(obj);

  PVOID unnamed = kvhost::ObCreateObject(&g_sampleType, 8);
  OBJECT_NAME_INFORMATION small{};
  EXPECT_EQ(ObQueryNameString(unnamed, &small, sizeof small, &needed), STATUS_SUCCESS);
  EXPECT_EQ(small.Name.Length, 0);
  ObDereferenceObject(unnamed);
}

TEST(ObjectManager, NamespaceIsCaseInsensitiveAndRefusesDuplicates) {
  PVOID a = kvhost::ObCreateObject(&g_sampleType, 8, u"\\BaseNamedObjects\\Ready");
  EXPECT_EQ(kvhost::ObCreateObject(&g_sampleType, 8, u"\\basenamedobjects\\READY"), nullptr);
  PVOID found = kvhost::ObLookupObjectByName(u"\\BASENAMEDOBJECTS\\ready");
  EXPECT_EQ(found, a);
  ObDereferenceObject(found);
  ObDereferenceObject(a);
}

TEST(ObjectManager, MisuseIsReportedAndLeftoversFailTheTest) {
  kvhost::ViolationCapture capture;
  PVOID obj = kvhost::ObCreateObject(&g_sampleType, 8, u"\\Device\\Leaky");
  HANDLE h = kvhost::ObCreateHandle(obj);
  std::vector<std::string> left = kvhost::ObDescribeLiveObjects();
  ASSERT_EQ(left.size(), 2u) << "one object and one open handle";
  EXPECT_NE(left[0].find("Leaky"), std::string::npos);
  EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(h), STATUS_INVALID_HANDLE);
  EXPECT_TRUE(capture.Saw("InvalidHandleClose"));
  ObDereferenceObject(obj);
  EXPECT_TRUE(kvhost::ObDescribeLiveObjects().empty());
}

}  // namespace
