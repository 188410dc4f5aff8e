// Security descriptors as the host kernel carries them with file requests: the kernel
// captures the caller's descriptor (absolute or self-relative) into self-relative form, as
// Windows does before a file system sees it, and file systems keep whole self-relative
// descriptors whose parts a set replaces.
#pragma once

#include <ntifs.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kvhost {

// The four parts of a descriptor, each as its bytes (a SID or an ACL), and its control
// word without SE_SELF_RELATIVE. An empty ACL with its *_PRESENT bit set is a NULL ACL.
struct SecurityParts {
  SECURITY_DESCRIPTOR_CONTROL Control = 0;
  std::vector<uint8_t> Owner;
  std::vector<uint8_t> Group;
  std::vector<uint8_t> Sacl;
  std::vector<uint8_t> Dacl;
};

// Reads an absolute or self-relative descriptor. `bytes` bounds a self-relative one (an
// absolute one points elsewhere and is trusted as kernel memory). False when it is
// malformed: a revision other than 1, a part outside the buffer, a SID or an ACL whose
// header does not describe a valid one.
bool ParseSecurityDescriptor(const void* descriptor, size_t bytes, SecurityParts* parts);

// The self-relative form: the header, then owner, group, SACL and DACL.
std::vector<uint8_t> BuildSelfRelativeDescriptor(const SecurityParts& parts);

// `stored` with the parts that `information` names (OWNER_, GROUP_, DACL_,
// SACL_SECURITY_INFORMATION) taken from `update`.
SecurityParts MergeSecurityParts(const SecurityParts& stored, const SecurityParts& update,
                                 SECURITY_INFORMATION information);

// Only the parts `information` names, for a query.
SecurityParts SelectSecurityParts(const SecurityParts& stored, SECURITY_INFORMATION information);

}  // namespace kvhost
