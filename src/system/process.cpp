// Process control: shell commands, programs and killall, started without
// waiting.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "foundation/collection/vector.h"
#include "foundation/file/fileutils.h"
#include "foundation/system/systemutils.h"
#include "foundation/text/safestring.h"
#include "foundation/text/stringutils.h"

namespace zorv {
namespace foundation {
namespace system {
namespace {

// The entry name of a descriptor as a number, by the rules of std::stoi
// (leading blanks, a sign, digits up to the first other byte); false when
// there is no number, where std::stoi would throw.
bool EntryNumber(const SafeString& name, int& number) {
  const char* begin = name.c_str();
  char* end = nullptr;
  errno = 0;
  const long value = strtol(begin, &end, 10);
  if (end == begin || errno == ERANGE || value < -2147483647L - 1 || value > 2147483647L) {
    return false;
  }
  number = static_cast<int>(value);
  return true;
}

// In a freshly forked child: closes every descriptor above 2 that the child
// inherited, as listed in its own "/proc/<pid>/fd". Entries are symbolic
// links to what they describe, so open folders are listed by the folder
// search and everything else by the file search.
void CloseInheritedDescriptors() {
  const SafeString folder = text::StringUtils::Format("/proc/%d/fd", static_cast<int>(getpid()));
  const collection::Vector<SafeString> anySuffix;
  collection::Vector<SafeString> entries =
      file::FileUtils::SearchFiles(folder, file::FileUtils::kSearchName, anySuffix);
  const collection::Vector<SafeString> folders =
      file::FileUtils::SearchFolders(folder, file::FileUtils::kSearchName);
  entries.insert(entries.end(), folders.begin(), folders.end());
  for (const SafeString& entry : entries) {
    int descriptor = -1;
    if (EntryNumber(entry, descriptor) && descriptor > 2) close(descriptor);
  }
}

// Children are reaped by the system: they never become zombies, and nobody
// in this process can wait for their exit status any more.
void IgnoreChildren() { signal(SIGCHLD, SIG_IGN); }

}  // namespace

bool SystemUtils::Command(const char* command) {
  if (command == nullptr) return false;
  const int saved = errno;
  IgnoreChildren();
  const pid_t child = fork();
  if (child == -1) {
    errno = saved;
    return false;
  }
  if (child == 0) {
    CloseInheritedDescriptors();
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    exit(0);
  }
  errno = saved;
  return true;
}

bool SystemUtils::Execute(const char* path, const char* arguments) {
  if (path == nullptr) return false;
  const int saved = errno;
  // Execute-only for everybody, replacing the whole mode; the file keeps it.
  chmod(path, 0111);
  IgnoreChildren();
  const pid_t child = fork();
  if (child == -1) {
    errno = saved;
    return false;
  }
  if (child == 0) {
    collection::Vector<SafeString> pieces;
    text::StringUtils::Split(arguments, ' ', pieces);
    collection::Vector<SafeString> words;
    for (const SafeString& piece : pieces) {
      SafeString word = text::StringUtils::Trim(piece);
      if (!word.empty()) words.push_back(word);
    }
    collection::Vector<char*> argv;
    argv.push_back(const_cast<char*>(path));
    for (SafeString& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    CloseInheritedDescriptors();
    execv(path, argv.data());
    exit(0);
  }
  errno = saved;
  return true;
}

bool SystemUtils::Kill(const char* name, bool force) {
  if (name == nullptr) return false;
  SafeString command("killall ");
  if (force) command += "-9 ";
  command += name;
  return Command(command.c_str());
}

}  // namespace system
}  // namespace foundation
}  // namespace zorv
