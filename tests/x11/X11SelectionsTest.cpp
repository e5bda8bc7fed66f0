// PRIMARY, CLIPBOARD and the copy chord against real X clients: a GTK entry,
// xclip, and a plain Xlib owner that answers well, never, wrongly or
// endlessly.
#include "desktop/x11/X11Selections.h"
#include "base/SparLog.h"
#include "support/TempDir.h"
#include "support/TextLines.h"
#include "x11/X11TestSupport.h"

// After gtest (through X11TestSupport.h): Xlib's None and Bool macros.
#include "desktop/x11/SelectionWorker.h"
#include "desktop/x11/XSelectionReader.h"
#include <gtk/gtk.h>

#include <array>
#include <fstream>
#include <gtest/gtest.h>
#include <set>

namespace orvane {
namespace {

using namespace std::chrono_literals;

// Every byte value, so that nothing on the way may treat the data as text.
std::string AllByteValues(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i)
    bytes[i] = char((i * 7 + 3) % 256);
  return bytes;
}

// The log lines of this test process and of the processes it started.
std::string LogText();

class X11SelectionsTest : public testing::Test {
protected:
  void TearDown() override {
    // No owner of ours outlives a test.
    TestDisplay display;
    display.disown("CLIPBOARD");
    display.disown("PRIMARY");
    SpinFor(0.05);
  }

  // The Xlib owner fixture, once it owns its selection.
  std::unique_ptr<Child> startOwner(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), SelectionOwnerFixture());
    return StartReady(arguments);
  }

  // The owner fixture serving each (target, type, bytes) on the selection.
  std::unique_ptr<Child> serve(const char* selection,
                               const std::vector<std::array<std::string, 3>>& targets,
                               std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments{"--selection", selection};
    for (const auto& [target, type, bytes] : targets) {
      std::string path = dir_.write("served-" + std::to_string(files_++), bytes);
      arguments.insert(arguments.end(), {"--serve", target, type, path});
    }
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return startOwner(arguments);
  }

  // A GTK window whose entry holds the text, all selected and focused.
  std::unique_ptr<Child> startEntry(const std::string& text) {
    return StartReady(
        {"/usr/bin/python3", FixtureScript("entry_window.py"), "Entry", text, keylog()});
  }
  std::string keylog() const { return dir_.file("keys.log"); }
  std::vector<std::string> keyLines() const { return SplitLines(TempDir::Read(keylog())); }

  // xclip holding the CLIPBOARD in the foreground (-quiet), so that it is
  // ours to end.
  std::unique_ptr<Child> xclipOwner(const std::string& text) {
    TestDisplay display;
    Window before = display.owner("CLIPBOARD");
    std::unique_ptr<Child> xclip =
        Child::Start({"xclip", "-quiet", "-selection", "clipboard", "-i"});
    if (!xclip)
      return nullptr;
    xclip->write(text);
    xclip->closeInput();
    if (!SpinUntil([&] {
          Window now = display.owner("CLIPBOARD");
          return now != None && now != before;
        }))
      return nullptr;
    return xclip;
  }

  static ToolResult xclipRead(const std::string& target, const char* selection = "clipboard") {
    return RunTool({"xclip", "-selection", selection, "-o", "-t", target});
  }

  TempDir dir_;
  int files_ = 0;
};

TEST_F(X11SelectionsTest, PrimaryOwnerIsTheProcessOfTheEntryThatHoldsTheSelection) {
  std::unique_ptr<Child> entry = startEntry("Grüße aus dem Eintrag");
  ASSERT_TRUE(entry);
  X11Selections selections;
  ASSERT_TRUE(SpinUntil([&] { return selections.primaryOwnerPid() == entry->pid(); }));
  EXPECT_EQ(selections.primaryText(), "Grüße aus dem Eintrag");
}

TEST_F(X11SelectionsTest, PrimaryOwnerPidComesFromTheServerNotFromAWindowProperty) {
  // The fixture's window carries no _NET_WM_PID at all.
  std::unique_ptr<Child> owner = serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", "plain"}});
  ASSERT_TRUE(owner);
  ToolResult xprop =
      RunTool({"xprop", "-id", std::to_string(TestDisplay().owner("PRIMARY")), "_NET_WM_PID"});
  EXPECT_NE(xprop.out.find("not found"), std::string::npos) << xprop.out;
  X11Selections selections;
  EXPECT_EQ(selections.primaryOwnerPid(), owner->pid());
  EXPECT_EQ(selections.primaryText(), "plain");
}

TEST_F(X11SelectionsTest, NobodyOwningPrimaryGivesNoPidAndNoText) {
  TestDisplay().disown("PRIMARY");
  X11Selections selections;
  EXPECT_EQ(selections.primaryOwnerPid(), std::nullopt);
  EXPECT_EQ(selections.primaryText(), std::nullopt);
}

TEST_F(X11SelectionsTest, AnEmptyPrimaryIsEmptyTextNotNothing) {
  std::unique_ptr<Child> owner = serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", ""}});
  ASSERT_TRUE(owner);
  X11Selections selections;
  EXPECT_EQ(selections.primaryText(), "");
}

TEST_F(X11SelectionsTest, LatinOneStringIsReadAsUtf8WhenNoUtf8IsOffered) {
  std::unique_ptr<Child> owner = serve("PRIMARY", {{"STRING", "STRING", "caf\xe9"}});
  ASSERT_TRUE(owner);
  X11Selections selections;
  EXPECT_EQ(selections.primaryText(), "café");
}

TEST_F(X11SelectionsTest, AReadAheadAnswersTheNextPrimaryReadFromTheSameOwner) {
  std::unique_ptr<Child> owner = serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", "read ahead"}});
  ASSERT_TRUE(owner);
  X11Selections selections;
  selections.readPrimaryAhead();
  EXPECT_EQ(selections.primaryOwnerPid(), owner->pid());
  EXPECT_EQ(selections.primaryText(), "read ahead");
  // Taken once; the next read asks the owner again.
  EXPECT_EQ(selections.primaryText(), "read ahead");
}

TEST_F(X11SelectionsTest, APrimaryThatChangedHandsAfterTheReadAheadIsReadFromItsNewOwner) {
  std::unique_ptr<Child> first = serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", "first"}});
  ASSERT_TRUE(first);
  X11Selections selections;
  selections.readPrimaryAhead();
  // The worker runs its jobs in order: once this read is answered, the read
  // ahead has its answer from the first owner.
  selections.clipboardText();
  std::unique_ptr<Child> second = serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", "second"}});
  ASSERT_TRUE(second);
  EXPECT_EQ(selections.primaryOwnerPid(), second->pid());
  EXPECT_EQ(selections.primaryText(), "second");
}

TEST_F(X11SelectionsTest, AConversionTellsTheOwnerItWentTo) {
  std::unique_ptr<Child> owner = serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", "whose"}});
  ASSERT_TRUE(owner);
  Window holder = TestDisplay().owner("PRIMARY");
  ASSERT_NE(holder, None);
  XSelectionReader reader(/*watch_clipboard=*/false);
  WaitBudget budget(std::chrono::seconds(2), std::chrono::seconds(2), std::chrono::seconds(5));
  unsigned long asked = 12345;
  std::optional<SelectionAnswer> answer =
      reader.convert("PRIMARY", "UTF8_STRING", budget, 1000, &asked);
  EXPECT_EQ(asked, holder);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->bytes, "whose");
  // Nobody owns it: the server refuses at once, and the owner is none.
  owner.reset();
  ASSERT_TRUE(SpinUntil([] { return TestDisplay().owner("PRIMARY") == None; }));
  asked = 12345;
  EXPECT_FALSE(reader.convert("PRIMARY", "UTF8_STRING", budget, 1000, &asked));
  EXPECT_EQ(asked, 0UL);
  // What the conversions' windows were still sent is dropped once asked.
  reader.tidy();
  EXPECT_EQ(XQLength(reader.display()), 0);
  EXPECT_EQ(reader.untrappedErrors(), 0U);
}

TEST_F(X11SelectionsTest, AReadAheadOfAPrimaryNobodyOwnsGivesNothing) {
  TestDisplay().disown("PRIMARY");
  X11Selections selections;
  selections.readPrimaryAhead();
  EXPECT_EQ(selections.primaryOwnerPid(), std::nullopt);
  EXPECT_EQ(selections.primaryText(), std::nullopt);
}

TEST_F(X11SelectionsTest, ADroppedReadAheadLeavesTheNextReadToTheOwner) {
  std::unique_ptr<Child> owner = serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", "kept"}});
  ASSERT_TRUE(owner);
  X11Selections selections;
  selections.readPrimaryAhead();
  selections.dropPrimaryAhead();
  EXPECT_EQ(selections.primaryText(), "kept");
}

TEST_F(X11SelectionsTest, EveryTargetOfTheClipboardIsSavedAndRestoredByteForByte) {
  // The big target is larger than the owner's chunk, so it travels by INCR.
  std::string png = AllByteValues(256);
  std::string big = AllByteValues(300000);
  std::unique_ptr<Child> owner =
      serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "Zwei Ziele ✓"},
                          {"text/html", "text/html", "<b>Zwei</b> Ziele"},
                          {"image/png", "image/png", png},
                          {"application/x-orvane-big", "application/octet-stream", big}});
  ASSERT_TRUE(owner);
  X11Selections selections;
  ClipboardContents saved = selections.saveClipboard();
  ClipboardContents expected{{"UTF8_STRING", "Zwei Ziele ✓"},
                             {"text/html", "<b>Zwei</b> Ziele"},
                             {"image/png", png},
                             {"application/x-orvane-big", big}};
  ASSERT_EQ(saved, expected);

  // Someone else copies; then the saved clipboard is written back.
  std::unique_ptr<Child> xclip = xclipOwner("something else");
  ASSERT_TRUE(xclip);
  EXPECT_EQ(owner->readLine(), "lost");
  selections.restoreClipboard(saved);
  ASSERT_TRUE(xclip->waitExit()) << "xclip keeps the CLIPBOARD after the restore";

  for (const SelectionTarget& target : expected) {
    ToolResult read = xclipRead(target.target);
    EXPECT_TRUE(read.ok()) << target.target;
    EXPECT_EQ(read.out, target.bytes) << target.target;
  }
  ToolResult targets = xclipRead("TARGETS");
  for (const char* name : {"UTF8_STRING", "text/html", "image/png", "application/x-orvane-big"})
    EXPECT_NE(targets.out.find(name), std::string::npos) << targets.out;
  // The types the owner answered with come back too.
  ToolResult types = RunTool({"/usr/bin/python3", FixtureScript("selection_type.py"), "CLIPBOARD",
                              "UTF8_STRING", "application/x-orvane-big"});
  EXPECT_EQ(types.out, "UTF8_STRING\napplication/octet-stream\n");
}

TEST_F(X11SelectionsTest, OurOwnRestoredClipboardIsAnsweredFromMemory) {
  X11Selections selections;
  ClipboardContents contents{{"UTF8_STRING", "aus dem Speicher"}, {"text/html", "<i>x</i>"}};
  selections.restoreClipboard(contents);
  EXPECT_EQ(selections.saveClipboard(), contents);
  EXPECT_EQ(selections.clipboardText(), "aus dem Speicher");
  // A second object of this process reads it over the X server: the main
  // loop answers it while the conversation runs on the worker.
  X11Selections other;
  EXPECT_EQ(other.clipboardText(), "aus dem Speicher");
  EXPECT_EQ(other.saveClipboard(), contents);
}

TEST_F(X11SelectionsTest, OnlyRealTargetsAreServedByARestore) {
  X11Selections selections;
  selections.restoreClipboard({{"", "empty name"},
                               {"TARGETS", "not a list"},
                               {"MULTIPLE", "x"},
                               {"INSERT_SELECTION", "x"},
                               {std::string(2000, 'n'), "long name"},
                               {std::string("nul\0name", 8), "x"},
                               {"text/plain", "kept"}});
  EXPECT_EQ(selections.saveClipboard(), (ClipboardContents{{"text/plain", "kept"}}));
  ToolResult targets = xclipRead("TARGETS");
  EXPECT_NE(targets.out.find("text/plain"), std::string::npos) << targets.out;
  EXPECT_EQ(targets.out.find("nnnn"), std::string::npos) << targets.out;
  EXPECT_EQ(xclipRead("text/plain").out, "kept");
}

TEST_F(X11SelectionsTest, RestoringNothingLeavesTheClipboardWithoutOwner) {
  std::unique_ptr<Child> owner = serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "old"}});
  ASSERT_TRUE(owner);
  X11Selections selections;
  selections.restoreClipboard({});
  EXPECT_EQ(TestDisplay().owner("CLIPBOARD"), None);
  EXPECT_EQ(owner->readLine(), "lost");
  EXPECT_EQ(selections.clipboardText(), std::nullopt);
  EXPECT_EQ(selections.saveClipboard(), ClipboardContents{});

  // Also after a restore of our own.
  selections.restoreClipboard({{"UTF8_STRING", "mine"}});
  EXPECT_NE(TestDisplay().owner("CLIPBOARD"), None);
  selections.restoreClipboard({});
  EXPECT_EQ(TestDisplay().owner("CLIPBOARD"), None);
  EXPECT_EQ(selections.clipboardText(), std::nullopt);
}

TEST_F(X11SelectionsTest, TheChangeCountMovesWheneverTheClipboardChangesHands) {
  X11Selections selections;
  uint64_t start = selections.clipboardChangeCount();
  EXPECT_EQ(selections.clipboardChangeCount(), start) << "nothing happened";

  std::unique_ptr<Child> owner = serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "first"}});
  ASSERT_TRUE(owner);
  uint64_t after_owner = selections.clipboardChangeCount();
  EXPECT_NE(after_owner, start);

  // The same client taking it again is a change too.
  owner->writeLine("take");
  ASSERT_EQ(owner->readLine(), "taken");
  uint64_t after_retake = selections.clipboardChangeCount();
  EXPECT_NE(after_retake, after_owner);

  std::unique_ptr<Child> xclip = xclipOwner("second");
  ASSERT_TRUE(xclip);
  uint64_t after_xclip = selections.clipboardChangeCount();
  EXPECT_NE(after_xclip, after_retake);
  EXPECT_EQ(selections.clipboardText(), "second");
  EXPECT_EQ(selections.clipboardChangeCount(), after_xclip) << "a read changes nothing";
}

TEST_F(X11SelectionsTest, AnOwnerThatNeverAnswersGivesNothingAndLeavesTheReaderUsable) {
  std::unique_ptr<Child> hung =
      serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "never sent"}}, {"--hang"});
  ASSERT_TRUE(hung);
  X11SelectionLimits limits;
  limits.idle_wait = 300ms;
  limits.stall_budget = 300ms;
  X11Selections selections(limits);
  EXPECT_EQ(selections.saveClipboard(), ClipboardContents{});
  EXPECT_EQ(selections.clipboardText(), std::nullopt);

  std::unique_ptr<Child> hung_primary =
      serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", "never sent"}}, {"--hang"});
  ASSERT_TRUE(hung_primary);
  EXPECT_EQ(selections.primaryOwnerPid(), hung_primary->pid());
  EXPECT_EQ(selections.primaryText(), std::nullopt);

  // The next owner is read normally over the same connection.
  std::unique_ptr<Child> xclip = xclipOwner("after the hang");
  ASSERT_TRUE(xclip);
  EXPECT_EQ(selections.clipboardText(), "after the hang");
}

TEST_F(X11SelectionsTest, AnswersOfTheWrongTypeAreDropped) {
  std::unique_ptr<Child> owner =
      serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "text"}}, {"--wrong-type"});
  ASSERT_TRUE(owner);
  size_t before = LogText().size();
  X11Selections selections;
  EXPECT_EQ(selections.saveClipboard(), ClipboardContents{}) << "TARGETS came as a STRING";
  EXPECT_NE(LogText().find("clipboard: its owner gave no list of targets, nothing saved", before),
            std::string::npos);
  EXPECT_EQ(selections.clipboardText(), std::nullopt) << "the text came as an INTEGER";
}

TEST_F(X11SelectionsTest, BogusAndRefusedTargetsAreLeftOutTheOthersSaved) {
  std::unique_ptr<Child> owner =
      serve("CLIPBOARD",
            {{"UTF8_STRING", "UTF8_STRING", "gut"}, {"text/html", "text/html", "<b>gut</b>"}},
            {"--bad-atoms"});
  ASSERT_TRUE(owner);
  X11Selections selections;
  EXPECT_EQ(selections.saveClipboard(),
            (ClipboardContents{{"UTF8_STRING", "gut"}, {"text/html", "<b>gut</b>"}}));
}

TEST_F(X11SelectionsTest, TargetsBeyondTheSizeCapAreDroppedTheOthersKept) {
  std::string big = AllByteValues(200000);
  // In one property...
  std::unique_ptr<Child> whole = serve(
      "CLIPBOARD",
      {{"UTF8_STRING", "UTF8_STRING", "small"}, {"application/x-huge", "application/x-huge", big}},
      {"--chunk", "1000000"});
  ASSERT_TRUE(whole);
  X11SelectionLimits limits;
  limits.max_clipboard_bytes = 100000;
  X11Selections selections(limits);
  EXPECT_EQ(selections.saveClipboard(), (ClipboardContents{{"UTF8_STRING", "small"}}));
  whole.reset();

  // ...and by INCR.
  std::unique_ptr<Child> incr = serve(
      "CLIPBOARD",
      {{"UTF8_STRING", "UTF8_STRING", "small"}, {"application/x-huge", "application/x-huge", big}},
      {"--chunk", "4096"});
  ASSERT_TRUE(incr);
  EXPECT_EQ(selections.saveClipboard(), (ClipboardContents{{"UTF8_STRING", "small"}}));
}

TEST_F(X11SelectionsTest, AnEndlessIncrTransferIsAbandoned) {
  // Big chunks run into the size cap...
  std::unique_ptr<Child> owner =
      serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "x"}}, {"--endless-incr"});
  ASSERT_TRUE(owner);
  X11SelectionLimits limits;
  limits.max_clipboard_bytes = 1 << 20;
  X11Selections selections(limits);
  EXPECT_EQ(selections.saveClipboard(), ClipboardContents{});
  EXPECT_EQ(selections.clipboardText(), std::nullopt);
  owner.reset();

  // ...tiny ones, which never stall, into the ceiling.
  std::unique_ptr<Child> trickle =
      serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "x"}}, {"--endless-incr", "--chunk", "1"});
  ASSERT_TRUE(trickle);
  limits.max_clipboard_bytes = size_t(64) << 20;
  limits.ceiling = 500ms;
  X11Selections patient(limits);
  EXPECT_EQ(patient.clipboardText(), std::nullopt);
}

// Counts the ticks of a main-loop timer while it lives: a main loop that is
// held does not tick.
class MainLoopTicks {
public:
  MainLoopTicks() {
    source_ = g_timeout_add(
        10,
        [](gpointer data) -> gboolean {
          ++*static_cast<int*>(data);
          return G_SOURCE_CONTINUE;
        },
        &ticks_);
  }
  ~MainLoopTicks() { g_source_remove(source_); }
  MainLoopTicks(const MainLoopTicks&) = delete;
  MainLoopTicks& operator=(const MainLoopTicks&) = delete;
  int ticks() const { return ticks_; }

private:
  int ticks_ = 0;
  guint source_ = 0;
};

// How long a call took, printed as a figure (never asserted).
template <typename Call> auto Timed(const char* what, Call call) {
  auto start = std::chrono::steady_clock::now();
  auto result = call();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  printf("[ figure   ] %s: %.3f s\n", what, seconds);
  return result;
}

TEST_F(X11SelectionsTest, AnOwnerOfHundredsOfTargetsThatConvertsNoneCostsOneBudgetAndHoldsNothing) {
  std::unique_ptr<Child> owner = serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "never sent"}},
                                       {"--many-targets", "400", "--hang-conversions"});
  ASSERT_TRUE(owner);
  size_t before = LogText().size();
  X11Selections selections;
  MainLoopTicks ticks;
  EXPECT_EQ(Timed("save from a hostile owner", [&] { return selections.saveClipboard(); }),
            ClipboardContents{});
  EXPECT_GE(ticks.ticks(), 10) << "the main loop was held while the save waited";
  EXPECT_NE(
      LogText().find("clipboard: its owner stopped answering, 0 of 401 targets saved", before),
      std::string::npos)
      << LogText().substr(before);

  // Reading its text likewise lets the main loop run.
  MainLoopTicks read_ticks;
  EXPECT_EQ(Timed("text from a hostile owner", [&] { return selections.clipboardText(); }),
            std::nullopt);
  EXPECT_GE(read_ticks.ticks(), 10) << "the main loop was held while the read waited";
}

TEST_F(X11SelectionsTest, AReadOfAnOwnerThatNeverAnswersLeavesTheMainLoopRunning) {
  std::unique_ptr<Child> hung =
      serve("PRIMARY", {{"UTF8_STRING", "UTF8_STRING", "never sent"}}, {"--hang"});
  ASSERT_TRUE(hung);
  X11Selections selections;
  MainLoopTicks ticks;
  EXPECT_EQ(selections.primaryText(), std::nullopt);
  EXPECT_GE(ticks.ticks(), 10) << "the main loop was held while the read waited";
}

TEST_F(X11SelectionsTest, ASlowIncrTransferThatKeepsProgressingCompletes) {
  // About thirty chunks, each sent 60 ms late: far longer in all than the
  // owner may stay silent at once, yet never silent that long.
  std::string big = AllByteValues(120000);
  std::unique_ptr<Child> owner =
      serve("CLIPBOARD", {{"application/x-slow", "application/octet-stream", big}},
            {"--chunk", "4096", "--chunk-delay", "60"});
  ASSERT_TRUE(owner);
  X11Selections selections;
  MainLoopTicks ticks;
  EXPECT_EQ(Timed("slow INCR save", [&] { return selections.saveClipboard(); }),
            (ClipboardContents{{"application/x-slow", big}}));
  EXPECT_GE(ticks.ticks(), 10);
}

TEST_F(X11SelectionsTest, AnIncrTransferThatStallsIsCutTheOtherTargetsKept) {
  std::unique_ptr<Child> owner =
      serve("CLIPBOARD",
            {{"UTF8_STRING", "UTF8_STRING", "klein"},
             {"application/x-stalls", "application/octet-stream", AllByteValues(100000)}},
            {"--chunk", "4096", "--stall-after", "3"});
  ASSERT_TRUE(owner);
  X11Selections selections;
  EXPECT_EQ(selections.saveClipboard(), (ClipboardContents{{"UTF8_STRING", "klein"}}));
}

TEST_F(X11SelectionsTest, AnOwnerThatVanishesMidTransferGivesNothingAndTheNextOwnerIsRead) {
  std::unique_ptr<Child> owner = serve(
      "CLIPBOARD", {{"application/x-gone", "application/octet-stream", AllByteValues(100000)}},
      {"--chunk", "4096", "--vanish-after", "2"});
  ASSERT_TRUE(owner);
  X11Selections selections;
  EXPECT_EQ(selections.saveClipboard(), ClipboardContents{});
  EXPECT_TRUE(owner->waitExit()) << "the owner went away in the middle";
  std::unique_ptr<Child> xclip = xclipOwner("danach");
  ASSERT_TRUE(xclip);
  EXPECT_EQ(selections.clipboardText(), "danach");
}

TEST_F(X11SelectionsTest, MalformedAnswersAreDroppedWithoutWaitingOnThem) {
  // INCR headers of the wrong format and size and a type the server never
  // made: none is a transfer to wait for, so the budget stays whole and the
  // save is not cut short.
  std::unique_ptr<Child> owner = serve("CLIPBOARD",
                                       {{"UTF8_STRING", "UTF8_STRING", "a"},
                                        {"text/html", "text/html", "b"},
                                        {"image/png", "image/png", "c"},
                                        {"text/plain", "text/plain", "d"}},
                                       {"--garbage-types"});
  ASSERT_TRUE(owner);
  size_t before = LogText().size();
  X11Selections selections;
  EXPECT_EQ(selections.saveClipboard(), ClipboardContents{});
  EXPECT_EQ(LogText().find("stopped answering", before), std::string::npos)
      << LogText().substr(before);
}

TEST_F(X11SelectionsTest, AWorkerDestroyedWhileItsConversationWaitsCancelsTheWait) {
  std::unique_ptr<Child> hung =
      serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "never sent"}}, {"--hang"});
  ASSERT_TRUE(hung);
  auto worker = std::make_unique<SelectionWorker>();
  SelectionWorker* running = worker.get();
  // Something the main loop runs while the conversation waits ends the
  // worker (as a program that shuts down would).
  g_timeout_add(
      100,
      [](gpointer data) -> gboolean {
        static_cast<std::unique_ptr<SelectionWorker>*>(data)->reset();
        return G_SOURCE_REMOVE;
      },
      &worker);
  bool ran = false;
  std::optional<SelectionAnswer> answer;
  std::chrono::milliseconds stall_left{0};
  running->run([&](XSelectionReader& reader) {
    // Waits that would last a minute on their own.
    WaitBudget budget(std::chrono::seconds(60), std::chrono::seconds(60), std::chrono::minutes(5));
    answer = reader.convert("CLIPBOARD", "UTF8_STRING", budget, 1000);
    stall_left = budget.stall;
    ran = true;
  });
  EXPECT_TRUE(ran);
  EXPECT_FALSE(answer);
  EXPECT_EQ(worker, nullptr);
  EXPECT_EQ(stall_left.count(), 0) << "the wait ran out by itself instead of being cancelled";
}

TEST_F(X11SelectionsTest, AnUnwatchedXErrorOnTheWorkersConnectionNeverReachesGdk) {
  // In a process of its own, whose GDK handler is watched from the start.
  ToolResult result = RunTool({"/proc/self/exe", "--untrapped-worker-error"});
  EXPECT_EQ(result.status, 0) << result.out;
  // GDK never ran off the main thread; the error was counted as the worker's
  // own and the worker went on; an error of another display still reached
  // GDK on the main thread.
  EXPECT_EQ(result.out, "elsewhere=0 main=1 untrapped=1 after=1\n");
}

TEST_F(X11SelectionsTest, SelectionsDestroyedWhileASaveWaitsEndTheSaveCleanly) {
  std::unique_ptr<Child> owner =
      serve("CLIPBOARD", {{"UTF8_STRING", "UTF8_STRING", "never sent"}}, {"--hang-conversions"});
  ASSERT_TRUE(owner);
  auto selections = std::make_unique<X11Selections>();
  X11Selections* saving = selections.get();
  // Something the main loop runs while the save waits ends the object.
  g_timeout_add(
      200,
      [](gpointer data) -> gboolean {
        static_cast<std::unique_ptr<X11Selections>*>(data)->reset();
        return G_SOURCE_REMOVE;
      },
      &selections);
  ClipboardContents contents = saving->saveClipboard();
  EXPECT_EQ(selections, nullptr);
  // The worker went with the object: its wait was cancelled, nothing read.
  EXPECT_EQ(contents, ClipboardContents{});
}

TEST_F(X11SelectionsTest, TextCopiedInThisProcessIsSavedWithEveryTargetAndRestored) {
  // What a page of ours does when the user copies in it: GTK's clipboard of
  // this very process owns the CLIPBOARD.
  const std::string text = "aus einer eigenen Seite ✓";
  gtk_clipboard_set_text(gtk_clipboard_get(GDK_SELECTION_CLIPBOARD), text.c_str(), -1);
  TestDisplay display;
  ASSERT_TRUE(SpinUntil([&] { return display.owner("CLIPBOARD") != None; }));
  X11Selections selections;
  ClipboardContents saved = selections.saveClipboard();
  std::set<std::string> names;
  for (const SelectionTarget& target : saved) {
    names.insert(target.target);
    if (target.target == "UTF8_STRING" || target.target == "text/plain;charset=utf-8") {
      EXPECT_EQ(target.bytes, text) << target.target;
    }
  }
  EXPECT_TRUE(names.count("UTF8_STRING")) << saved.size();
  EXPECT_TRUE(names.count("text/plain;charset=utf-8")) << saved.size();

  // Another application's copy replaces it; the restore brings ours back,
  // and it stays once GTK's own data is gone.
  std::unique_ptr<Child> xclip = xclipOwner("fremd");
  ASSERT_TRUE(xclip);
  selections.restoreClipboard(saved);
  ASSERT_TRUE(xclip->waitExit());
  EXPECT_EQ(xclipRead("UTF8_STRING").out, text);
  EXPECT_EQ(xclipRead("text/plain;charset=utf-8").out, text);
}

TEST_F(X11SelectionsTest, TheCopyChordReachesTheFocusedApplicationWhichCopies) {
  std::unique_ptr<Child> entry = startEntry("kopiere mich");
  ASSERT_TRUE(entry);
  X11Selections selections;
  uint64_t before = selections.clipboardChangeCount();
  ASSERT_TRUE(selections.sendCopyChord(CopyChord::kControlC));
  ASSERT_TRUE(SpinUntil([&] { return selections.clipboardChangeCount() != before; }));
  EXPECT_EQ(selections.clipboardText(), "kopiere mich");
  std::vector<std::string> keys = keyLines();
  ASSERT_FALSE(keys.empty());
  EXPECT_EQ(keys.back(), "c " + std::to_string(GDK_CONTROL_MASK));
}

TEST_F(X11SelectionsTest, TheChordWaitsUntilTheHotkeysAltIsReleased) {
  std::unique_ptr<Child> entry = startEntry("nach dem Loslassen");
  ASSERT_TRUE(entry);
  X11Selections selections;
  uint64_t before = selections.clipboardChangeCount();
  // Alt is still held from the hotkey; it comes up a little later.
  ASSERT_TRUE(RunTool({"xdotool", "keydown", "Alt_L"}).ok());
  std::unique_ptr<Child> release = Child::Start({"xdotool", "sleep", "0.3", "keyup", "Alt_L"});
  ASSERT_TRUE(release);
  ASSERT_TRUE(selections.sendCopyChord(CopyChord::kControlC));
  ASSERT_TRUE(release->waitExit());
  ASSERT_TRUE(SpinUntil([&] { return selections.clipboardChangeCount() != before; }));
  EXPECT_EQ(selections.clipboardText(), "nach dem Loslassen");
  // The c arrived with Control alone: no Alt (Mod1) in its state.
  std::vector<std::string> keys = keyLines();
  std::vector<std::string> c_presses;
  for (const std::string& line : keys)
    if (line.rfind("c ", 0) == 0)
      c_presses.push_back(line);
  EXPECT_EQ(c_presses, std::vector<std::string>{"c " + std::to_string(GDK_CONTROL_MASK)});
}

TEST_F(X11SelectionsTest, KeysThatStayDownMeanNoChordAtAll) {
  std::unique_ptr<Child> entry = startEntry("bleibt");
  ASSERT_TRUE(entry);
  X11SelectionLimits limits;
  limits.keys_up_wait = 200ms;
  X11Selections selections(limits);
  uint64_t before = selections.clipboardChangeCount();
  ASSERT_TRUE(RunTool({"xdotool", "keydown", "Shift_L"}).ok());
  EXPECT_FALSE(selections.sendCopyChord(CopyChord::kControlC));
  ASSERT_TRUE(RunTool({"xdotool", "keyup", "Shift_L"}).ok());
  // Let anything that was sent arrive before looking.
  ASSERT_TRUE(RunTool({"xdotool", "key", "x"}).ok());
  ASSERT_TRUE(SpinUntil([&] {
    std::vector<std::string> keys = keyLines();
    return !keys.empty() && keys.back().rfind("x ", 0) == 0;
  }));
  for (const std::string& line : keyLines())
    EXPECT_NE(line.substr(0, 2), "c ") << line;
  EXPECT_EQ(selections.clipboardChangeCount(), before);
}

TEST_F(X11SelectionsTest, TheTerminalChordIsControlShiftC) {
  std::unique_ptr<Child> entry = startEntry("terminal");
  ASSERT_TRUE(entry);
  X11Selections selections;
  ASSERT_TRUE(selections.sendCopyChord(CopyChord::kControlShiftC));
  ASSERT_TRUE(SpinUntil([&] {
    std::vector<std::string> keys = keyLines();
    return !keys.empty() && keys.back().rfind("C ", 0) == 0;
  }));
  EXPECT_EQ(keyLines().back(), "C " + std::to_string(GDK_CONTROL_MASK | GDK_SHIFT_MASK));
}

// The log lines of this test process and of the processes it started.
std::string LogText() {
  return TempDir::Read(LogFilePath());
}

constexpr char kKeptLine[] = "clipboard: kept by a background process for ";

// The process that serves the CLIPBOARD now (XRes).
std::optional<int> ClipboardOwnerPid() {
  TestDisplay display;
  return PidOfWindowClient(display.get(), display.owner("CLIPBOARD"));
}

bool ProcessGone(int pid) {
  std::string stat = TempDir::Read("/proc/" + std::to_string(pid) + "/stat");
  size_t close = stat.rfind(')');
  return stat.empty() || (close != std::string::npos && stat.substr(close + 2, 1) == "Z");
}

TEST_F(X11SelectionsTest, TheRestoredClipboardOutlivesTheProcessUntilAnotherClientCopies) {
  std::string html = "<p>überlebt</p>";
  std::unique_ptr<Child> caller =
      Child::Start({"/proc/self/exe", "--restore-and-exit", "600000", "UTF8_STRING",
                    "überlebt den Prozess", "text/html", html});
  ASSERT_TRUE(caller);
  std::optional<int> status = caller->waitExit();
  ASSERT_TRUE(status);
  EXPECT_EQ(*status, 0);

  ASSERT_NE(LogText().find(std::string(kKeptLine) + "600 s"), std::string::npos) << LogText();
  // The caller waited for the keeper to take the CLIPBOARD before it exited.
  std::optional<int> keeper = ClipboardOwnerPid();
  ASSERT_TRUE(keeper);
  EXPECT_NE(*keeper, caller->pid());
  EXPECT_FALSE(ProcessGone(*keeper));
  EXPECT_EQ(xclipRead("UTF8_STRING").out, "überlebt den Prozess");
  EXPECT_EQ(xclipRead("text/html").out, html);
  // Its hand-over file is gone.
  EXPECT_EQ(RunTool({"sh", "-c", "ls \"$XDG_CACHE_HOME/com.tarnwick.orvane\" | grep kept-"}).out,
            "");

  std::unique_ptr<Child> xclip = xclipOwner("newer");
  ASSERT_TRUE(xclip);
  ASSERT_TRUE(SpinUntil([&] { return ProcessGone(*keeper); }));
  EXPECT_NE(LogText().find("clipboard: the background keeper stepped aside for a new copy"),
            std::string::npos);
  EXPECT_EQ(xclipRead("UTF8_STRING").out, "newer");
}

TEST_F(X11SelectionsTest, TheBackgroundKeeperEndsWhenItsTimeIsUp) {
  std::string before = LogText();
  std::unique_ptr<Child> caller =
      Child::Start({"/proc/self/exe", "--restore-and-exit", "500", "UTF8_STRING", "nur kurz"});
  ASSERT_TRUE(caller);
  ASSERT_EQ(caller->waitExit(), 0);
  ASSERT_TRUE(SpinUntil([&] {
    return LogText().find("clipboard: the background keeper ends, its time is up", before.size()) !=
           std::string::npos;
  })) << LogText();
  EXPECT_NE(LogText().find(std::string(kKeptLine) + "0 s", before.size()), std::string::npos);
  // The server lets the CLIPBOARD go once it has closed the keeper's connection.
  TestDisplay display;
  EXPECT_TRUE(SpinUntil([&] { return display.owner("CLIPBOARD") == None; }));
}

TEST_F(X11SelectionsTest, WithAClipboardManagerTheClipboardIsHandedToIt) {
  std::unique_ptr<Child> manager = startOwner({"--manager"});
  ASSERT_TRUE(manager);
  std::string before = LogText();
  std::unique_ptr<Child> caller =
      Child::Start({"/proc/self/exe", "--restore-and-exit", "600000", "UTF8_STRING",
                    "an den Verwalter", "text/html", "<i>verwaltet</i>"});
  ASSERT_TRUE(caller);
  EXPECT_EQ(manager->readLine(), "saved 2");
  ASSERT_EQ(caller->waitExit(), 0);
  std::string log = LogText().substr(before.size());
  EXPECT_NE(log.find("clipboard: handed to the clipboard manager"), std::string::npos) << log;
  EXPECT_EQ(log.find(kKeptLine), std::string::npos) << log;
  EXPECT_EQ(xclipRead("UTF8_STRING").out, "an den Verwalter");
  EXPECT_EQ(xclipRead("text/html").out, "<i>verwaltet</i>");
}

TEST_F(X11SelectionsTest, AKeeperDoesNotOverwriteANewerCopy) {
  // A keeper that starts after someone else copied leaves their copy alone.
  std::unique_ptr<Child> xclip = xclipOwner("the user's newer copy");
  ASSERT_TRUE(xclip);
  std::string folder = std::string(g_get_user_cache_dir()) + "/com.tarnwick.orvane";
  g_mkdir_with_parents(folder.c_str(), 0700);
  std::string path = folder + "/kept-clipboard-late";
  TempDir::WriteFile(path, "orvane-kept-clipboard 1\nlifetime 60000\nowner 12345\ntargets 1\n"
                           "target 11 11 8 3\nUTF8_STRINGUTF8_STRINGold\n");
  chmod(path.c_str(), 0600);
  ToolResult keeper = RunTool({OrvaneExecutable(), "--keep-clipboard", path});
  EXPECT_EQ(keeper.status, 0);
  EXPECT_NE(LogText().find("clipboard: another client took the clipboard before the keeper "
                           "started"),
            std::string::npos);
  EXPECT_EQ(xclipRead("UTF8_STRING").out, "the user's newer copy");
}

TEST_F(X11SelectionsTest, TheKeeperRefusesFilesThatAreNotItsOwn) {
  std::string folder = std::string(g_get_user_cache_dir()) + "/com.tarnwick.orvane";
  g_mkdir_with_parents(folder.c_str(), 0700);
  auto refused = [&](const std::string& path, const std::string& why) {
    ToolResult keeper = RunTool({OrvaneExecutable(), "--keep-clipboard", path});
    EXPECT_EQ(keeper.status, 1 << 8) << path;
    EXPECT_NE(LogText().find("clipboard: refused the kept clipboard " + path + " (" + why + ")"),
              std::string::npos)
        << LogText();
  };
  // Malformed, inside the folder: refused and removed.
  std::string malformed = folder + "/kept-clipboard-malformed";
  TempDir::WriteFile(malformed, "orvane-kept-clipboard 1\nlifetime 60000\nowner 0\ntargets 2\n"
                                "target 11 11 8 999999\nUTF8_STRING");
  chmod(malformed.c_str(), 0600);
  refused(malformed, "truncated target");
  EXPECT_FALSE(g_file_test(malformed.c_str(), G_FILE_TEST_EXISTS));

  // Readable by others: refused and left alone.
  std::string open_file = folder + "/kept-clipboard-open";
  TempDir::WriteFile(open_file, "orvane-kept-clipboard 1\n");
  chmod(open_file.c_str(), 0644);
  refused(open_file, "not private to this user");
  EXPECT_TRUE(g_file_test(open_file.c_str(), G_FILE_TEST_EXISTS));

  // Larger than any well-formed file (sparse, so it costs no disk).
  std::string huge = folder + "/kept-clipboard-huge";
  TempDir::WriteFile(huge, "");
  ASSERT_EQ(truncate(huge.c_str(), off_t(100) << 20), 0);
  chmod(huge.c_str(), 0600);
  refused(huge, "too large");

  // Outside the keeper's folder: never read, never deleted.
  std::string elsewhere = dir_.write("kept-clipboard-elsewhere", "orvane-kept-clipboard 1\n");
  chmod(elsewhere.c_str(), 0600);
  refused(elsewhere, "not in the keeper's folder");
  EXPECT_TRUE(g_file_test(elsewhere.c_str(), G_FILE_TEST_EXISTS));

  // A FIFO is no file to wait on.
  std::string fifo = folder + "/kept-clipboard-fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  refused(fifo, "not a regular file");
  unlink(fifo.c_str());
  unlink(open_file.c_str());
  unlink(huge.c_str());
}

} // namespace
} // namespace orvane
