#include "foundation/system/consoleutils.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/threading/lock.h"
#include "support/boundedwait.h"
#include "support/forked.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::system::ConsoleUtils;
using zorv::foundation::threading::Locker;

// What the writer received, piece by piece.
std::mutex g_mutex;
std::vector<std::string> g_pieces;

void Capture(const char* text) {
  std::lock_guard<std::mutex> hold(g_mutex);
  g_pieces.push_back(text);
}

// The pieces received since the last call.
std::vector<std::string> Pieces() {
  std::lock_guard<std::mutex> hold(g_mutex);
  return std::exchange(g_pieces, {});
}

class ConsoleUtilsTest : public zorv::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    zorv::test::LeakCheckedTest::SetUp();
    (void)Pieces();
    ConsoleUtils::SetWriter(&Capture);
  }
  void TearDown() override {
    ConsoleUtils::SetWriter(nullptr);
    zorv::test::LeakCheckedTest::TearDown();
  }
};

// What the writer receives: the text without a line break; a range in
// pieces of at most 1023 bytes, each cut short at a zero byte.
TEST_F(ConsoleUtilsTest, WriterReceivesPieces) {
  const auto range = [](const std::string& t) {
    ConsoleUtils::Print(t.data(), t.data() + t.size());
  };
  const auto reversed = [](const std::string& t) { ConsoleUtils::Print(t.data() + 5, t.data()); };
  const auto print = [](const std::string& t) { ConsoleUtils::Print(t.c_str()); };
  const auto println = [](const std::string& t) { ConsoleUtils::Println(t.c_str()); };
  std::string zeroAt10(1100, 'q');
  zeroAt10[10] = '\0';
  // clang-format off
  const std::tuple<const char*, std::function<void(const std::string&)>, std::string,
                   std::vector<size_t>> cases[] = {
      {"Print", print, "a", {1}}, {"Println", println, "x", {1}}, {"range 0", range, "", {}},
      {"range 1023", range, std::string(1023, 'r'), {1023}},
      {"range 1024", range, std::string(1024, 'r'), {1023, 1}},
      {"zero byte", range, zeroAt10, {10, 77}}, {"reversed", reversed, std::string(10, 'r'), {}}};
  // clang-format on
  for (const auto& [name, call, text, sizes] : cases) {
    SCOPED_TRACE(name);
    call(text);
    const std::vector<std::string> pieces = Pieces();
    ASSERT_EQ(pieces.size(), sizes.size());
    size_t at = 0;
    for (size_t i = 0; i < pieces.size(); ++i) {
      EXPECT_EQ(pieces[i], text.substr(at, sizes[i]));
      at += i == 0 && sizes[0] == 10 ? 1023 : sizes[i];  // a cut piece still spends 1023
    }
  }
}

TEST_F(ConsoleUtilsTest, WithoutWriterPrintsToStandardOutput) {
  ConsoleUtils::SetWriter(nullptr);
  testing::internal::CaptureStdout();
  ConsoleUtils::Print("one ");
  ConsoleUtils::Println("two");
  const char range[] = "three";
  ConsoleUtils::Print(range, range + 3);
  ConsoleUtils::Print("%d%s\n");  // printed as text, not as a format
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "one two\nthr%d%s\n");
  EXPECT_TRUE(Pieces().empty()) << "the removed writer is not called";
}

// Each of the three prints waits while the console lock is held.
TEST_F(ConsoleUtilsTest, HoldingTheConsoleLockKeepsEveryPrintOut) {
  const char range[] = "range";
  std::vector<std::thread> printers;
  {
    Locker locker(ConsoleUtils::ConsoleLock(), false);
    printers.emplace_back([] { ConsoleUtils::Print("text"); });
    printers.emplace_back([&] { ConsoleUtils::Print(range, range + 5); });
    printers.emplace_back([] { ConsoleUtils::Println("line"); });
    std::this_thread::sleep_for(zorv::test::Margin(30));
    EXPECT_TRUE(Pieces().empty()) << "a print did not wait for the lock";
  }
  for (std::thread& printer : printers) printer.join();
  std::vector<std::string> pieces = Pieces();
  std::sort(pieces.begin(), pieces.end());
  EXPECT_EQ(pieces, (std::vector<std::string>{"line", "range", "text"}));
}

// Pause prints its prompt and returns at once without a terminal (standard
// input /dev/null). On a terminal it waits for one key in raw mode, then
// gives the terminal its modes back. A key and Enter are typed before the
// call: a Pause that never went raw would leave that line to be read. The
// child ends itself should Pause wait for more.
TEST_F(ConsoleUtilsTest, PauseTakesOneKeyFromATerminalAndRestoresIt) {
  const pid_t child = zorv::test::Fork([](int) {
    alarm(10);
    if (dup2(open("/dev/null", O_RDONLY), STDIN_FILENO) != STDIN_FILENO) return 4;
    ConsoleUtils::Pause();
    if (Pieces() != std::vector<std::string>{"[...waiting for action...]"}) return 5;
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return 77;
    const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY);
    struct termios before;
    if (terminal < 0 || dup2(terminal, STDIN_FILENO) != STDIN_FILENO ||
        tcgetattr(STDIN_FILENO, &before) != 0 || write(master, "k\n", 2) != 2) {
      return 77;
    }
    ConsoleUtils::Pause();
    struct termios after;
    if (tcgetattr(STDIN_FILENO, &after) != 0 || after.c_lflag != before.c_lflag) return 2;
    fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK);
    char left;
    return read(STDIN_FILENO, &left, 1) == 1 ? 3 : 0;  // the key was taken
  });
  ASSERT_GT(child, 0);
  const int code = zorv::test::WaitChild(child);
  if (code == 77) GTEST_SKIP() << "no pseudo-terminal here";
  EXPECT_EQ(code, 0);
}

}  // namespace
