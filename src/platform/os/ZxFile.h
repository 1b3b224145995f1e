// Files as the agent uses them. Return value: true = done; on false errno says why. All calls block on
// file I/O and hold no lock. Nothing here logs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Api.h"
#include "platform/text/PString.h"

// Whole file into a heap buffer with a NUL behind the last byte; release with ZxReleaseFileData.
// Refuses (EFBIG) files above kZxFileMaxBytes and (EINVAL) anything but a regular file.
inline constexpr size_t kZxFileMaxBytes = 64u << 20;
ZX_API bool ZxReadFileData(const CPString& strFile, char*& pData, size_t& uLength);
ZX_API void ZxReleaseFileData(char* pData);
// The same into a text, for callers that want a value.
ZX_API bool ZxReadFileText(const CPString& strFile, CPString& strData);

// Creates or truncates, writes all, closes; mode 0644, or 0600 when bPrivate (an existing file is brought to
// it). Not synced: durable writers move the file into place with ZxSyncedRename.
ZX_API bool ZxSaveFileData(const CPString& strFile, const CPString& strData, bool bPrivate = false);
// Syncs strSrc, renames it over strDst, syncs the directory.
ZX_API bool ZxSyncedRename(const CPString& strSrc, const CPString& strDst);

// Whether an entry of a directory listing is a directory or a symbolic link; ucType is its d_type. Asks the
// file system when that does not tell the type (DT_UNKNOWN), as some file systems never do.
ZX_API bool ZxIsDirectoryOrLink(const CPString& strFile, unsigned char ucType);
ZX_API bool ZxIsFileExisted(const CPString& strFile);
// Copies content and permission bits. bFailIfExists 1: an existing target is an error (EEXIST) and stays as
// it was; 0: replaced. The target is written beside its place and renamed, so that a reader never sees half
// of it.
ZX_API bool ZxCopyFile(const CPString& strSrc, const CPString& strDst, int bFailIfExists);
// Size in bytes and modification time in seconds; both 0 on failure.
ZX_API bool ZxGetFileAttr(const CPString& strFile, uint64_t& u64Size, uint32_t& dwLastWriteTime);
