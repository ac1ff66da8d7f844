#ifndef VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTCONSTANTS_H_
#define VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTCONSTANTS_H_

#include <string_view>

namespace vm {

// Settings keys, error domains and copy-context keys of the schemes. Each constant holds
// its own name without the leading k, except the telemetry facility name.
inline constexpr std::string_view kVMArchiverAttachmentStorageFolder =
    "VMArchiverAttachmentStorageFolder";
inline constexpr std::string_view kVMArchiverAttachmentDomain = "VMArchiverAttachmentDomain";
inline constexpr std::string_view kVMAFPAttachmentServerPath = "VMAFPAttachmentServerPath";
inline constexpr std::string_view kVMAFPAttachmentUsername = "VMAFPAttachmentUsername";
inline constexpr std::string_view kVMAFPAttachmentPassword = "VMAFPAttachmentPassword";
// sftp shares: the known-hosts file to check the server's key against (absent:
// ~/.ssh/known_hosts), and a private key to log in with.
inline constexpr std::string_view kVMAFPAttachmentKnownHostsFile = "VMAFPAttachmentKnownHostsFile";
inline constexpr std::string_view kVMAFPAttachmentIdentityFile = "VMAFPAttachmentIdentityFile";
inline constexpr std::string_view kVMAFPAttachmentDomain = "VMAFPAttachmentDomain";
inline constexpr std::string_view kVMAFPContextAttachment = "VMAFPContextAttachment";
inline constexpr std::string_view kVMAFPContextDelegate = "VMAFPContextDelegate";
inline constexpr std::string_view kVMAFPContextDownloading = "VMAFPContextDownloading";
inline constexpr std::string_view kVMAFPContextSchemeHandler = "VMAFPContextSchemeHandler";
inline constexpr std::string_view kVMAFPContextTargetURL = "VMAFPContextTargetURL";
// Offered to the host for its attachment telemetry; nothing in the framework reads it.
inline constexpr std::string_view kVMAttachmentTelemetryFacility = "VMAttachments";

}  // namespace vm

#endif  // VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTCONSTANTS_H_
