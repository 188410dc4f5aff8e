// Reading, building and merging security descriptors (see kvhost/security.h).
#include <cstring>

#include "kvhost/security.h"

namespace kvhost {
namespace {

constexpr size_t kSidHeaderBytes = 8;

// The bytes of the SID at `sid`, or an empty vector when it is not a valid SID within
// `limit` bytes.
std::vector<uint8_t> CopySid(const uint8_t* sid, size_t limit) {
  if (limit < kSidHeaderBytes) return {};
  const auto* header = reinterpret_cast<const SID*>(sid);
  if (header->Revision != SID_REVISION || header->SubAuthorityCount > SID_MAX_SUB_AUTHORITIES) return {};
  const size_t bytes = kSidHeaderBytes + 4 * size_t(header->SubAuthorityCount);
  if (bytes > limit) return {};
  return std::vector<uint8_t>(sid, sid + bytes);
}

// The bytes of the ACL at `acl` (its AclSize), or nothing when its header or its ACEs do
// not fit.
bool CopyAcl(const uint8_t* acl, size_t limit, std::vector<uint8_t>* out) {
  if (limit < sizeof(ACL)) return false;
  ACL header;
  std::memcpy(&header, acl, sizeof header);
  if (header.AclRevision < ACL_REVISION || header.AclRevision > ACL_REVISION_DS) return false;
  if (header.AclSize < sizeof(ACL) || header.AclSize > limit || header.AclSize % 4 != 0) return false;
  size_t offset = sizeof(ACL);
  for (USHORT i = 0; i < header.AceCount; ++i) {
    if (offset + 4 > header.AclSize) return false;
    USHORT aceSize;
    std::memcpy(&aceSize, acl + offset + 2, sizeof aceSize);
    if (aceSize < 4 || offset + aceSize > header.AclSize) return false;
    offset += aceSize;
  }
  out->assign(acl, acl + header.AclSize);
  return true;
}

bool ReadPart(const uint8_t* base, size_t bytes, ULONG offset, bool isSid, std::vector<uint8_t>* out) {
  if (offset == 0) return true;
  if (offset >= bytes) return false;
  if (isSid) {
    *out = CopySid(base + offset, bytes - offset);
    return !out->empty();
  }
  return CopyAcl(base + offset, bytes - offset, out);
}

void Append(std::vector<uint8_t>& out, const std::vector<uint8_t>& part, ULONG* offset) {
  if (part.empty()) return;
  *offset = static_cast<ULONG>(out.size());
  out.insert(out.end(), part.begin(), part.end());
}

}  // namespace

bool ParseSecurityDescriptor(const void* descriptor, size_t bytes, SecurityParts* parts) {
  *parts = SecurityParts();
  if (descriptor == nullptr || bytes < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) return false;
  SECURITY_DESCRIPTOR_RELATIVE relative;
  std::memcpy(&relative, descriptor, sizeof relative);
  if (relative.Revision != SECURITY_DESCRIPTOR_REVISION) return false;
  parts->Control = relative.Control & ~SE_SELF_RELATIVE;
  if (relative.Control & SE_SELF_RELATIVE) {
    const auto* base = static_cast<const uint8_t*>(descriptor);
    return ReadPart(base, bytes, relative.Owner, true, &parts->Owner) &&
           ReadPart(base, bytes, relative.Group, true, &parts->Group) &&
           ReadPart(base, bytes, (relative.Control & SE_SACL_PRESENT) ? relative.Sacl : 0, false, &parts->Sacl) &&
           ReadPart(base, bytes, (relative.Control & SE_DACL_PRESENT) ? relative.Dacl : 0, false, &parts->Dacl);
  }
  // Absolute: the parts are kernel pointers, bounded only by their own headers.
  const auto* absolute = static_cast<const SECURITY_DESCRIPTOR*>(descriptor);
  constexpr size_t kUnbounded = 1 << 16;
  if (absolute->Owner != nullptr) {
    parts->Owner = CopySid(static_cast<const uint8_t*>(absolute->Owner), kUnbounded);
    if (parts->Owner.empty()) return false;
  }
  if (absolute->Group != nullptr) {
    parts->Group = CopySid(static_cast<const uint8_t*>(absolute->Group), kUnbounded);
    if (parts->Group.empty()) return false;
  }
  if ((absolute->Control & SE_SACL_PRESENT) && absolute->Sacl != nullptr &&
      !CopyAcl(reinterpret_cast<const uint8_t*>(absolute->Sacl), kUnbounded, &parts->Sacl))
    return false;
  if ((absolute->Control & SE_DACL_PRESENT) && absolute->Dacl != nullptr &&
      !CopyAcl(reinterpret_cast<const uint8_t*>(absolute->Dacl), kUnbounded, &parts->Dacl))
    return false;
  return true;
}

std::vector<uint8_t> BuildSelfRelativeDescriptor(const SecurityParts& parts) {
  SECURITY_DESCRIPTOR_RELATIVE header{};
  header.Revision = SECURITY_DESCRIPTOR_REVISION;
  header.Control = parts.Control | SE_SELF_RELATIVE;
  std::vector<uint8_t> out(sizeof header);
  Append(out, parts.Owner, &header.Owner);
  Append(out, parts.Group, &header.Group);
  if (parts.Control & SE_SACL_PRESENT) Append(out, parts.Sacl, &header.Sacl);
  if (parts.Control & SE_DACL_PRESENT) Append(out, parts.Dacl, &header.Dacl);
  std::memcpy(out.data(), &header, sizeof header);
  return out;
}

SecurityParts MergeSecurityParts(const SecurityParts& stored, const SecurityParts& update,
                                 SECURITY_INFORMATION information) {
  constexpr SECURITY_DESCRIPTOR_CONTROL kDaclBits =
      SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED;
  constexpr SECURITY_DESCRIPTOR_CONTROL kSaclBits =
      SE_SACL_PRESENT | SE_SACL_DEFAULTED | SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED;
  SecurityParts merged = stored;
  if (information & OWNER_SECURITY_INFORMATION) {
    merged.Owner = update.Owner;
    merged.Control = (merged.Control & ~SE_OWNER_DEFAULTED) | (update.Control & SE_OWNER_DEFAULTED);
  }
  if (information & GROUP_SECURITY_INFORMATION) {
    merged.Group = update.Group;
    merged.Control = (merged.Control & ~SE_GROUP_DEFAULTED) | (update.Control & SE_GROUP_DEFAULTED);
  }
  if (information & DACL_SECURITY_INFORMATION) {
    merged.Dacl = update.Dacl;
    merged.Control = (merged.Control & ~kDaclBits) | (update.Control & kDaclBits);
  }
  if (information & SACL_SECURITY_INFORMATION) {
    merged.Sacl = update.Sacl;
    merged.Control = (merged.Control & ~kSaclBits) | (update.Control & kSaclBits);
  }
  return merged;
}

SecurityParts SelectSecurityParts(const SecurityParts& stored, SECURITY_INFORMATION information) {
  SecurityParts none;
  none.Control = 0;
  return MergeSecurityParts(none, stored, information);
}

}  // namespace kvhost
