// FileUtils: path splitting and joining, whole-file reading and writing, and
// folder creation, removal, copying and searching.
#ifndef ZORV_FOUNDATION_FILE_FILEUTILS_H_
#define ZORV_FOUNDATION_FILE_FILEUTILS_H_

#include "foundation/collection/vector.h"
#include "foundation/export.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace memory {
class IBuffer;
}  // namespace memory

namespace file {

// A family of static functions over paths, files and folders. Paths are
// `SafeString`s of bytes; both '/' and '\' are accepted as separators on
// input, and paths that these functions build use '/' only. WriteText,
// WriteBinary and the folder operations hand the operating system the
// normalised path (split at both separators and joined with '/', as
// LinkPath(path, "") gives it; WriteText, WriteBinary and CreateFolder keep
// a trailing separator), so that the folders they find or create are those
// of the path they open; the other functions hand paths over as they are.
// Names read from a folder are used as they are: a '\' in a name on disk
// never separates anything.
//
// Thread safety: no function keeps state; each is as safe as the system calls
// it makes. Two callers that write, remove or rename the same path race as
// ordinary file operations do.
//
// Errors: no function throws on a file-system error or reports errno. Every
// failure is reported by the result alone: false, 0 or an empty value. Only
// running out of memory escapes (std::bad_alloc from the string types);
// ReadBinary also passes on what the buffer's setLength throws.
class ZORV_FOUNDATION_EXPORT FileUtils {
 public:
  FileUtils() = delete;

  // ---- Path utilities (pure string functions, no file-system access) ------
  //
  // The path is split into components at every '/' or '\'; runs of
  // separators collapse, a trailing separator disappears, a leading separator
  // is kept as the root component "/". Joining puts one '/' between
  // components. "." and ".." are kept as they are; nothing consults the
  // current directory. An embedded zero byte ends the component holding it.
  // None of these functions fails.

  // The last component: 'dir/file.txt' -> 'file.txt', 'dir/sub/' -> 'sub',
  // '/' and '///' -> '/'; "" for "".
  static SafeString GetFileName(const SafeString& path);

  // The text after the last '.' of GetFileName(path), without the dot;
  // "" when the name holds no dot. '.profile' -> 'profile',
  // 'archive.tar.gz' -> 'gz', 'dir.d/file' -> "".
  static SafeString GetFileExt(const SafeString& path);

  // GetFileName(path) up to (not including) its last '.'; the whole name when
  // it holds no dot. '.profile' -> "", 'name.' -> 'name'.
  static SafeString GetNoExtFileName(const SafeString& path);

  // The normalised path without its last component: '/a/b/c' -> '/a/b',
  // '/a' -> '/', 'a' -> "", '/' -> "".
  static SafeString GetFolderPath(const SafeString& path);

  // The normalised path whose last component has lost its extension:
  // 'a\b\c.d.e' -> 'a/b/c.d', '/a/.rc' -> '/a/' (the separator before the
  // emptied name stays), '/' -> '/'.
  static SafeString GetNoExtPath(const SafeString& path);

  // The components of `first` followed by those of `second`, joined.
  // Nothing is collapsed across the seam: ('/a', '/b') -> '/a//b',
  // ('/opt/app', 'conf/x.ini') -> '/opt/app/conf/x.ini', ("", "") -> "".
  static SafeString LinkPath(const SafeString& first, const SafeString& second);

  // ---- Kind tests and sizes -----------------------------------------------
  //
  // All give false (or 0) for an empty path. Symbolic links are judged by
  // their target; a dangling link is neither a file nor a folder.

  // True when the path names anything the process may see (access F_OK).
  [[nodiscard]] static bool IsExist(const SafeString& path);

  // True when stat succeeds and the mode holds the directory type bit
  // 040000. Block devices and sockets have that bit too and count as
  // folders.
  [[nodiscard]] static bool IsFolder(const SafeString& path);

  // True when stat succeeds and the mode lacks the directory type bit:
  // regular files, character devices and FIFOs.
  [[nodiscard]] static bool IsFile(const SafeString& path);

  // The size in bytes of a file (64-bit on every target); 0 when the path is
  // not a file, cannot be opened for reading or cannot be sought (a FIFO).
  // A regular file is not opened: its size is its status's, once the
  // permission check says that it could be opened.
  static unsigned long long GetFileSize(const SafeString& path);

  // ---- Whole-file reading ---------------------------------------------------
  //
  // A leading byte-order mark is skipped: EF BB BF (UTF-8), or FF FE / FE FF
  // (UTF-16 in either order; the rest is still returned as raw bytes). No
  // line-end translation takes place.
  //
  // A regular file is read to its end, whatever size it says it has: files
  // under /proc and /sys that say 0 or 4096 bytes give all they hold, and
  // the bytes are read into room of the size the file said, grown only when
  // more follow. Other files (devices) are read up to the size that a seek
  // to their end gives (ReadText reads them to their end too).

  // Replaces `text` by the file's bytes after any byte-order mark; an empty
  // file gives true and "". The text keeps no room beyond the file's bytes.
  // False, with `text` untouched, when the file cannot be opened or read (a
  // folder, a missing file) or holds more bytes than a string can
  // (SafeString::max_size(), 0x7FFFFFFF). Throws std::bad_alloc when the
  // memory cannot be had.
  [[nodiscard]] static bool ReadText(const SafeString& path, SafeString& text);

  // Clears `lines`, then appends each line of the file (after any byte-order
  // mark) without its '\n'. Only '\n' ends a line: a '\r' before it stays at
  // the end of its line. A last line without '\n' is appended; a file ending
  // in '\n' gives no empty last line. False, with `lines` empty, when the file
  // cannot be opened or read, or holds more bytes than a string can or more
  // lines than a vector can. Throws std::bad_alloc when the memory cannot be
  // had.
  [[nodiscard]] static bool ReadText(const SafeString& path, collection::Vector<SafeString>& lines);

  // Appends the file's bytes to `buffer` at its write position: the buffer's
  // length becomes write position + file size and the write position ends
  // behind the file's bytes. False, with the buffer untouched, when the file
  // cannot be opened or sized (a folder, a FIFO), or when write position +
  // size exceeds PTRDIFF_MAX. False without reading when the buffer's length
  // does not become what setLength asked for (a StringWriter cuts lengths to
  // 32 bits): the buffer keeps the length it took, with its write position
  // at its end. False when a read fails or a device ends early (the buffer
  // keeps its new length). Exceptions of the buffer's own setLength pass
  // through.
  // REQUIRES: buffer is not null.
  [[nodiscard]] static bool ReadBinary(const SafeString& path, memory::IBuffer* buffer);

  // ---- Whole-file writing, removal, renaming, copying ---------------------

  // Replaces the file's contents by all bytes of `text` (embedded zero bytes
  // included), creating missing parent folders of the normalised path with
  // mode 0755 (less the umask), and writing that path: 'out\x.txt' writes
  // 'out/x.txt'. False when the path is empty or a folder, a parent prefix
  // exists and is not a folder, a folder cannot be made, or the file cannot
  // be opened or written; every parent folder this call made (also those
  // reached through "..") is then removed again, with what lies in it. That
  // removal needs no memory; std::bad_alloc can only escape before the
  // first folder is made. An existing file that could not be rewritten is
  // not restored.
  [[nodiscard]] static bool WriteText(const SafeString& path, const SafeString& text);

  // As WriteText, with `size` bytes from `data` (which may be null when
  // `size` is 0).
  [[nodiscard]] static bool WriteBinary(const SafeString& path, const unsigned char* data,
                                        unsigned int size);

  // As WriteText (same path handling, parent folders made and removed again
  // alike), but crash-safe: the text goes to a temporary file '.' + name +
  // '.tmp' (the name cut to fit) in the target's folder, which is synced,
  // renamed over the target and followed by a sync of the folder. Whenever
  // the process or the system stops, the target holds either its old or its
  // new contents, never a mix or nothing. The new file keeps the permission
  // bits (and, where allowed, the owner) of the file it replaces; a new
  // target gets the mode WriteText would give it (0666 less the umask). A
  // symbolic link (also a chain, or a relative one) is followed to its final
  // target, which is replaced; the link stays. Two callers saving the same
  // target (in one process or two) take turns: a call waits while another
  // saves it. False when WriteText would fail, when links loop, when the
  // target is not a regular file (a device or FIFO cannot be replaced this
  // way), or when the temporary cannot be made, written, synced or renamed;
  // the target is then untouched and no temporary stays behind. False as well
  // when the folder cannot be synced after the rename (the target holds the
  // new contents, which a power cut may still undo). A temporary left by a
  // process killed while saving is removed and made anew by the next save.
  [[nodiscard]] static bool WriteTextAtomic(const SafeString& path, const SafeString& text);

  // As WriteTextAtomic, with `size` bytes from `data` (which may be null
  // when `size` is 0).
  [[nodiscard]] static bool WriteBinaryAtomic(const SafeString& path, const unsigned char* data,
                                              unsigned int size);

  // Deletes one file (never a folder). False when the path is not a file or
  // the removal fails.
  [[nodiscard]] static bool RemoveFile(const SafeString& path);

  // Moves the file `from` to `to`, replacing an existing file (or link) at
  // `to` in one step: a failed move leaves it in place. When both paths name
  // one file (another spelling, a hard link, another case on a case-blind
  // file system; compared by device and inode), the result is true and
  // nothing changes. False when a path is empty, the two are the same text,
  // `from` is not a file, the folder of `to` is missing (it is not created),
  // `to` is or leads to a folder, `from` is a link to the file `to`, or
  // rename fails.
  [[nodiscard]] static bool RenameFile(const SafeString& from, const SafeString& to);

  // Moves the folder `from` to `to`; an existing folder tree at `to` is
  // removed first. A trailing '/' on either path is ignored. A symbolic link
  // at `to` that leads to a folder is removed as a link: nothing behind it
  // is touched. When both name one folder (by device and inode), the result
  // is true and nothing changes. False, with nothing removed, when a path is
  // empty, the two are the same text, `from` is not a folder, `to` exists and is not a folder, one of the two folders
  // holds the other (or `from` leads to `to` through a link), or the folder
  // of `to` is missing; false as well when the removal or the rename fails
  // (what was removed stays removed).
  [[nodiscard]] static bool RenameFolder(const SafeString& from, const SafeString& to);

  // Copies the bytes of the file `from` to `to` in 4096-byte chunks,
  // replacing an existing file: a regular file to its end (as the readers
  // do), a device up to the size a seek to its end gives. Between two
  // regular files of more than 64 KiB the kernel copies the bytes where it
  // can (copy_file_range), and the chunks whatever it leaves. The copy gets the
  // default mode of a new file; owner and times are not copied. False when a
  // path is empty, the two name the same file, `from` is not a file (or a
  // device that cannot be sized, as a FIFO), the folder of `to` is missing
  // (it is not created), `to` is a folder, a device ends early, or a read or
  // write fails; a partial copy is then deleted (a device or FIFO that `to`
  // names is left in place).
  [[nodiscard]] static bool CopyFile(const SafeString& from, const SafeString& to);

  // ---- Folder operations ----------------------------------------------------

  // Creates the folder and any missing parents with mode 0755 (less the
  // umask), at the normalised path. False when the path is empty or anything
  // already exists there (an existing folder included), a parent prefix is
  // not a folder, or mkdir fails; every folder this call made is then
  // removed again, as for WriteText.
  [[nodiscard]] static bool CreateFolder(const SafeString& path);

  // Deletes the folder at the normalised path with all its contents. No
  // symbolic link is ever followed: a path that is a link to a folder
  // removes the link alone (true), links inside the tree are removed as
  // links, and every folder below is entered by a descriptor opened without
  // following links, so a folder swapped for a link meanwhile is removed as
  // a link too. Sockets, FIFOs and devices inside are unlinked like files.
  // False, with nothing touched, when the path is empty, not a folder (nor
  // a link to one), ends in "." or "..", or leads to the root folder in any
  // spelling ("/", "//", "/tmp/..", a link to "/"): any path whose folder
  // has the device and inode of "/" is refused, and no folder with them is
  // ever emptied (the root mounted elsewhere). Nor is a folder that holds
  // the path (up to 64 levels up) or lies on the removal's own way down,
  // met again inside the tree (mounted there once more): the removal fails
  // there, and nothing beside the tree is touched. False as well when
  // anything cannot be removed; the first failure stops the removal and
  // what was removed stays removed. Needs open descriptors, not memory, per
  // level.
  [[nodiscard]] static bool RemoveFolder(const SafeString& path);

  // Copies the contents of the folder `from` into `to` (both normalised),
  // creating `to` (but not its parent) when missing; other contents of an
  // existing `to` are kept, and existing files of the same names are
  // overwritten. Each entry keeps its name from disk, backslashes included.
  // The source side follows links (a link to a file is copied as a file, a
  // link to a folder as a folder); the target side never does: below `to`,
  // every entry is made and opened relative to its open folder, and a link,
  // FIFO or device met there under a copied name (or a folder swapped for a
  // link) fails the copy. An existing `to` that is itself a link to a folder
  // is copied into.
  // False when a path is empty, the two are the same text or the same
  // folder, `from` is not a folder, the folder of `to` is missing, `to` lies
  // inside `from`, a link leads back to a folder being copied, or any entry
  // fails to copy: a file that cannot be read or written (a FIFO), a folder
  // that cannot be opened, a socket or block device. Then every folder this
  // call made, `to` included, is removed again with its contents; in an
  // existing `to`, files copied before the failure stay. After the paths
  // are normalised nothing allocates, so std::bad_alloc escapes only before
  // anything is made.
  [[nodiscard]] static bool CopyFolder(const SafeString& from, const SafeString& to);

  // Search flag bits, combined with |.
  // Descend into every subfolder found (a folder is listed before its
  // contents). Only real folders are entered: a link to a folder is listed
  // as a folder but never descended into, so link loops cannot trap a
  // search, and a folder already open on the current path (the root bound
  // below itself) is not entered again. The searched path itself may be a
  // link.
  static constexpr unsigned int kSearchRecursive = 0x4;
  // Collect the bare entry name (when kSearchRelative is not set).
  static constexpr unsigned int kSearchName = 0x2;
  // Collect the path relative to the searched folder, always beginning with
  // '/': '/a.txt', '/sub/b.txt'.
  // With neither kSearchName nor kSearchRelative, full paths 'root/sub/name'
  // are collected, where root is the normalised search path.
  static constexpr unsigned int kSearchRelative = 0x1;

  // The folders beneath `path`, in the order the system lists them (not
  // sorted). Bits 30 and 31 of `flags` are ignored. Empty when the path is
  // empty or not a readable folder.
  static collection::Vector<SafeString> SearchFolders(const SafeString& path, unsigned int flags);

  // The files (everything that is not a folder by IsFolder) beneath `path`
  // whose collected string ends, ignoring ASCII case, in one of `suffixes`
  // (every file when `suffixes` is empty; an empty suffix matches all).
  // Suffixes match as given: 'txt' also matches 'atxt'. Otherwise as
  // SearchFolders.
  static collection::Vector<SafeString> SearchFiles(const SafeString& path, unsigned int flags,
                                                    const collection::Vector<SafeString>& suffixes);
};

}  // namespace file
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_FILE_FILEUTILS_H_
