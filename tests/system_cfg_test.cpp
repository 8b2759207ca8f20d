#include "korvo/variant_utils/system_cfg.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <functional>
#include <memory>
#include <sstream>
#include <system_error>

#include "korvo/utils/file.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/device.h"
#include "support/log_capture.h"
#include "support/replacements.h"
#include "support/variant_printer.h"

namespace {

namespace fs = std::filesystem;
using korvo::variant::Variant;
using test::ChildProcess;

std::string messageOf(int error) { return std::generic_category().message(error); }

class SystemCfgTest : public testing::Test {
  protected:
    SystemCfgTest() { configuration("a=1\n"); }

    void configuration(const std::string& text) { root.write("tmp/system.cfg", text); }
    std::string configuration() const { return root.read("tmp/system.cfg"); }
    std::string flashCopy() const { return root.read(flashFolder + "/system.cfg"); }
    /** Whether no manager of this thread holds the lock. */
    static bool lockIsFree() { return InterProcessMutex("system.cfg", true).acquire() == 0; }

    /** What get() tells of a key. */
    template <class Value>
    static std::string got(SystemCfgManager& store, const std::string& key, Value value) {
        bool notFound = true;
        if (!store.get(key, &value, &notFound)) return "refused";
        std::ostringstream text;
        text << (notFound ? "missing, " : "") << value;
        return text.str();
    }
    /** What set() does with a value. */
    template <class Value>
    static std::string set(SystemCfgManager& store, const std::string& key, const Value& value) {
        bool differed = false;
        return !store.set(key, value, &differed) ? "refused" : differed ? "differed" : "equal";
    }

    /** A failure on one line, without the device's root; nothing when none has failed. */
    std::string shown(const korvo::Failure& failure) const {
        static const char* const steps[] = {"",    "State", "Lock",      "Unlock", "Read", "Load",
                                            "Key", "Value", "Serialize", "Write",  "Save"};
        std::string text = steps[static_cast<std::size_t>(failure.step)];
        if (!failure.subject.empty()) text += ' ' + failure.subject;
        if (failure.line != 0) text += ':' + std::to_string(failure.line);
        if (failure.error != 0) text += ": " + messageOf(failure.error);
        if (!failure.reason.empty()) text += ": " + failure.reason;
        korvo::utils::replaceAll(text, root.path(), "ROOT");
        return text;
    }

    test::Device root;
    const fs::path path = root.path() / "tmp/system.cfg";
    const std::string flashFolder = std::string(KORVO_FLASH_DIR).substr(1);
    test::LogCapture log;
    Variant tree;
};

TEST_F(SystemCfgTest, LoadsAndWritesBackNothingButWhatTheRulesSay) {
    for (const auto& [input, expected] : test::readCases("store_files.txt")) {
        SCOPED_TRACE(input);
        const auto given = test::fields(input), wanted = test::fields(expected);
        configuration(given[1]);
        SystemCfgManager store(&tree, given[0] == "escaped", given[0] != "numbers", true);
        ASSERT_TRUE(store.init());
        Variant* node = nullptr;
        ASSERT_TRUE(store.getSystemCfgValue(wanted[0], korvo::variant::TypeAny, &node));
        EXPECT_EQ(node != nullptr ? test::shown(*node) : "nothing", wanted[1]);
        ASSERT_TRUE(store.write());
        EXPECT_EQ(configuration(), wanted[2]);
        const Variant before = tree;
        EXPECT_TRUE(store.read());
        EXPECT_EQ(tree, before) << "what was written loads as another tree";
    }
}

TEST_F(SystemCfgTest, ReadsIntegersAndCountsFlashWritesUpToTheLargest) {
    const std::string key = "system.flash.cycles";
    const auto check = [&](const std::string& text, bool strings, const std::string& integer) {
        configuration(key + '=' + text);
        SystemCfgManager store(&tree, false, strings, true);
        EXPECT_TRUE(store.init());
        EXPECT_EQ(got(store, key, 99), integer);
        const bool isText = strings || integer == "missing, -1";
        EXPECT_EQ(got(store, key, std::string("99")), isText ? text : "missing, ");
        for (const char* missing : {"system", "system.flash.cycles.z", "y"}) {
            EXPECT_EQ(got(store, missing, 99), "missing, -1") << missing;
            EXPECT_EQ(got(store, missing, std::string("99")), "missing, ") << missing;
        }
        EXPECT_TRUE(store.get(key, static_cast<int*>(nullptr), nullptr));
        EXPECT_TRUE(store.close(false, true));
        return configuration();
    };
    for (const auto& [text, expected] : test::readCases("store_integers.txt")) {
        const auto wanted = test::fields(expected);
        EXPECT_EQ(check(text, true, wanted[0]), key + '=' + wanted[1] + '\n') << text;
        EXPECT_EQ(check(text, false, wanted[2]), key + '=' + wanted[3] + '\n') << text;
    }
}

TEST_F(SystemCfgTest, StoresAndWritesAtOnceAndTellsWhetherTheValueDiffered) {
    for (const bool strings : {true, false}) {
        configuration("equal=7\nmap.member=1\nn=07\n");
        SystemCfgManager store(&tree, false, strings, true);
        ASSERT_TRUE(store.init());
        EXPECT_EQ(set(store, "equal", 7), "equal");
        ASSERT_TRUE(store.close(true, false) && store.init());
        EXPECT_EQ(flashCopy(), "") << "an equal value is no change";
        for (const std::string expected : {"differed", "equal"}) {
            EXPECT_EQ(set(store, "n", 7), expected);
            EXPECT_EQ(set(store, "new.a.key", "on"), expected);
            EXPECT_EQ(set(store, "new.8", "digits"), expected);
            EXPECT_EQ(set(store, "map", -5), expected);
            if (expected == "differed") fs::resize_file(path, 0);
        }
        EXPECT_EQ(configuration(), "equal=7\nmap=-5\nn=7\nnew.8=digits\nnew.a.key=on\n")
            << "an equal value is written too";
        EXPECT_EQ(got(store, "new.8", std::string()), "digits");
        EXPECT_EQ(test::shown(tree["n"]), strings ? "string 7" : "int32 7");
        tree["n"] = 5;
        EXPECT_EQ(set(store, "n", "5"), "differed") << "an integer is no string";
        ASSERT_TRUE(store.close(false, false) && store.init() && store.close(true, false));
        EXPECT_EQ(flashCopy(), "") << "nothing has changed since the configuration was opened again";
        ASSERT_TRUE(store.init());
        EXPECT_EQ(set(store, "n", "6"), "differed");
        EXPECT_EQ(set(store, "n", "6"), "equal");
        ASSERT_TRUE(store.close(true, false));
        EXPECT_NE(flashCopy(), "") << "what has changed is saved";
        fs::remove_all(root.path() / flashFolder);
    }
}

TEST_F(SystemCfgTest, RefusedKeysAndValuesLeaveNoTrace) {
    configuration("a=1\nm.n=2\n");
    SystemCfgManager store(&tree, true, true, true);
    ASSERT_TRUE(store.init() && fs::remove(path));
    tree["list"][0] = "zero";
    const Variant before = tree;
    std::string longest;
    for (const auto& [pair, forGet] : test::readCases("store_refused.txt")) {
        SCOPED_TRACE(pair);
        const std::string key = test::fields(pair)[0];
        bool flag = true;
        std::string value = "old";
        EXPECT_FALSE(store.set(key, test::fields(pair)[1], &flag));
        EXPECT_THAT(log.messages(), testing::StartsWith("Failed to set system.cfg key "));
        EXPECT_EQ(store.get(key, &value, &flag), forGet == "missing");
        EXPECT_EQ(log.take().empty(), forGet == "missing");
        EXPECT_TRUE(flag);
        EXPECT_EQ(value, "");
        EXPECT_EQ(tree, before);
        if (key.size() > longest.size()) longest = key;
    }
    Variant* node = &tree;
    std::string lastKey = "old";
    store.getLastNode("a.b", node, lastKey);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(lastKey, "");
    EXPECT_TRUE(store.close(true, false));
    EXPECT_FALSE(fs::exists(path)) << "something was marked as changed";
    configuration("a=1\n");
    longest.resize(longest.size() - 2);  // one component less
    ASSERT_TRUE(store.init() && store.set(longest, "deepest", nullptr));
    EXPECT_TRUE(store.set("new._45.b", "v=1.1#", nullptr));
    EXPECT_TRUE(store.set("cr", "x\ry", nullptr) && store.read()) << "what can be loaded can be set";
    EXPECT_EQ(configuration(), "a=1\ncr=x\ry\n" + longest + "=deepest\nnew.45.b=v=1.1#\n");
    std::string key = "new._45.b";
    store.getLastNode(key, node, key);
    EXPECT_NE(node, nullptr);
    EXPECT_EQ(key, "b") << "the last key may replace the key";
}

TEST_F(SystemCfgTest, EveryOperationNeedsAManagerOpenInThisProcess) {
    SystemCfgManager store;
    const auto refusesEverything = [&] {
        int integer = 5;
        std::string string = "s";
        bool flag = true;
        Variant out = 5;
        const bool done[] = {store.get("a", &integer, &flag),
                             store.get("a", &string, &flag),
                             store.set("a", 2, &flag),
                             store.set("a", "2", &flag),
                             store.write(),
                             store.getVariant(out),
                             store.close(true, true)};
        EXPECT_THAT(done, testing::Each(false));
        store.markChanged();
        EXPECT_EQ(std::tuple(integer, string, flag, out), std::tuple(5, "s", true, Variant(5)));
        std::string expected = "SystemCfgManager not initialized";
        for (int call = 1; call < 8; ++call) expected += "|SystemCfgManager not initialized";
        EXPECT_EQ(log.messages(), expected);
    };
    configuration("no pair\n");
    EXPECT_FALSE(store.init());
    EXPECT_TRUE(lockIsFree());
    EXPECT_EQ(log.messages(), "Failed to deserialize system.cfg file|Failed to read system.cfg into variant");
    refusesEverything();
    configuration("a=1\n");
    ASSERT_TRUE(store.init());
    EXPECT_FALSE(store.init());
    EXPECT_FALSE(SystemCfgManager().init());
    EXPECT_EQ(log.messages(),
              "SystemCfgManager already initialized|Failed to acquire system.cfg mutex, res=" +
                  std::to_string(EDEADLK));
    ASSERT_TRUE(store.getVariant(tree));
    tree["a"] = "2";  // in a copy, so that the file keeps its value
    // A forked child has the object but not the lock: it must neither write nor keep the parent from it.
    store.markChanged();
    ChildProcess child([&](const ChildProcess&) {
        refusesEverything();
        fs::remove(path);
        store.~SystemCfgManager();
        return testing::Test::HasFailure() || fs::exists(path) ? 1 : 0;
    });
    EXPECT_EQ(child.exitStatus(), 0);
    EXPECT_TRUE(store.close(false, false));
    EXPECT_EQ(configuration(), "a=1\n");
    refusesEverything();
    ChildProcess opens([&](const ChildProcess&) { return store.init() && store.close(true, false) ? 0 : 1; });
    EXPECT_EQ(opens.exitStatus(), 0);
}

TEST_F(SystemCfgTest, FailureTellsWhyTheLastCallFailed) {
    using Store = SystemCfgManager;
    const std::string file = "ROOT/tmp/system.cfg",
                      underscore = ": an index component of it has no underscore";
    const std::string temporary = "tmp/system.cfg." + std::to_string(::getpid());
    const std::string flashParent = flashFolder.substr(0, flashFolder.find('/'));
    const auto because = [](const std::string& what, int error) { return what + ": " + messageOf(error); };
    const auto inTheWay = [&](const std::string& name) {
        fs::remove(root.path() / name);
        fs::create_directories(root.path() / name / "in the way");
    };
    const auto init = [](Store& store) { return store.init(); };
    const auto loads = [&](const char* text) {
        return [=](Store& store) { return configuration(text), store.read(); };
    };
    const auto sets = [](const char* key, const char* value) {
        return [=](Store& store) { return store.set(key, value, nullptr); };
    };
    const auto writes = [&](const auto& before) {
        return [&, before](Store& store) { return before(), store.write(); };
    };
    struct Case {
        bool opened;
        std::function<bool(Store&)> cause;
        std::string failure;
    };
    for (const auto& [opened, cause, failure] : std::vector<Case>{
             {false, sets("a", "2"), "State: the configuration is not open"},
             {false, [](Store& store) { return store.markChanged(), false; },
              "State: the configuration is not open"},
             {true, init, "State: the configuration is open already"},
             {false,
              [](Store& store) {
                  InterProcessMutex held("system.cfg", true);
                  return held.acquire() != 0 || store.init();
              },
              because("Lock " + file + ".lock", EDEADLK)},
             {true,
              [&](Store& store) {
                  fs::remove(path.string() + ".lock");
                  return store.write() || store.close(false, false);
              },
              because("Unlock " + file + ".lock", EPERM)},
             {false, [&](Store& store) { return fs::remove(path), store.init(); },
              because("Read " + file, ENOENT)},
             {true, [&](Store& store) { return inTheWay("tmp/system.cfg"), store.read(); },
              because("Read " + file, EISDIR)},
             {true, loads("a=1\n\ntorn\nworse\n"), "Load " + file + ":3: there is no \"=\""},
             {true, loads("a.1=1\n#\na.1.b=2\n"),
              "Load " + file + ":3: \"a.1\" is a value since line 1, so nothing can be below it"},
             {true, [](Store& store) { return store.get("a..b", static_cast<int*>(nullptr), nullptr); },
              "Key a..b: it has an empty component"},
             {true,
              [](Store& store) { return store.getSystemCfgValue("#a", korvo::variant::TypeAny, nullptr); },
              "Key #a: a component of it begins with \"#\""},
             {true, sets("new.1.b", "x"), "Key new.1.b" + underscore},
             {true,
              [](Store& store) {
                  Variant* node = nullptr;
                  std::string key = "new.1.b";
                  return store.getLastNode(key, node, key), node != nullptr;
              },
              "Key new.1.b" + underscore},
             {true, sets("a.b.c", "x"), "Key a.b.c: \"a\" has a value, so nothing can be below it"},
             {true, [&](Store& store) { return tree = 5, store.set("a", 1, nullptr); },
              "Key a: the tree has a value, so nothing can be below it"},
             {true, [&](Store& store) { return tree["x"]["y"][0] = 1, store.set("x.y.0", 1, nullptr); },
              "Key x.y.0: \"x.y\" has an indexed member of that name"},
             {true,
              [](Store& store) {
                  return store.apply({{"b", "1"}, {"b", "2"}}, nullptr);
              },
              "Key b: it is given twice"},
             {true,
              [](Store& store) {
                  return store.apply({{"b", "1"}, {"a.b", "2"}}, nullptr);
              },
              "Key a.b: \"a\" has a value, so nothing can be below it"},
             {true, sets("b", "two\nlines"), "Value b: it holds a line break"},
             {true, writes([&] { tree["b"] = "two\nlines"; }),
              "Serialize: the tree cannot be written as key=value text"},
             {true, [&](Store& store) { return loads("torn")(store) || store.write(); },
              "Serialize: a failed read has emptied the tree"},
             {true, writes([&] { inTheWay(temporary); }), because("Write " + file, EISDIR)},
             {true, writes([&] { inTheWay("tmp/system.cfg"); }), because("Write " + file, EISDIR)},
             {true, writes([&] { fs::remove(path.string() + ".lock"); }), because("Write " + file, ESTALE)},
             {true,
              [&](Store& store) { return root.write(flashParent, "in the way"), store.close(false, true); },
              because("Save ROOT/" + flashFolder + "/system.cfg", ENOTDIR)},
         }) {
        SCOPED_TRACE(failure);
        for (const std::string& name : {std::string("tmp"), flashParent}) fs::remove_all(root.path() / name);
        fs::create_directory(root.path() / "tmp");
        configuration("a=1\n");
        SystemCfgManager store(&tree, true, true, true);
        ASSERT_TRUE(!opened || store.init());
        EXPECT_EQ(shown(store.failure()), "");
        EXPECT_FALSE(cause(store));
        EXPECT_EQ(shown(store.failure()), failure);
        fs::remove_all(path);
        configuration("a=1\n");
        EXPECT_TRUE(store.read());
        EXPECT_EQ(shown(store.failure()), "") << "after a call that succeeded";
    }
}

TEST_F(SystemCfgTest, CloseSavesWhatTheFlagsAsk) {
    for (int flags = 7; flags >= 0; --flags) {
        SCOPED_TRACE(flags);
        const bool change = (flags & 1) != 0, save = (flags & 2) != 0, force = (flags & 4) != 0;
        fs::remove_all(root.path() / flashFolder);
        configuration("a=1\n\n");
        SystemCfgManager store;
        ASSERT_TRUE(store.init());
        if (change) store.markChanged();
        EXPECT_TRUE(store.close(save, force));
        EXPECT_TRUE(lockIsFree());
        const bool counted = force || (save && change);
        const std::string expected = counted ? "a=1\nsystem.flash.cycles=1\n" : change ? "a=1\n" : "a=1\n\n";
        EXPECT_EQ(configuration(), expected);
        EXPECT_EQ(flashCopy(), counted ? expected : "");
    }
}

TEST_F(SystemCfgTest, FailedCloseStaysOpenUntilItSucceedsOrIsGivenUp) {
    const std::string flashParent = flashFolder.substr(0, flashFolder.find('/'));
    root.write(flashParent, "in the way");
    auto store = std::make_unique<SystemCfgManager>();
    ASSERT_TRUE(store->init() && store->set("a", "b", nullptr));
    EXPECT_FALSE(store->close(true, false));
    EXPECT_FALSE(lockIsFree());
    EXPECT_TRUE(fs::remove(root.path() / flashParent) && store->close(true, false));
    EXPECT_EQ(flashCopy(), "a=b\nsystem.flash.cycles=2\n");

    configuration("system=5\n");  // a value, below which the counter cannot be stored
    (void)log.take();
    ASSERT_TRUE(store->init());
    store->markChanged();
    EXPECT_FALSE(store->close(true, false));
    EXPECT_EQ(log.messages(),
              "Failed to set system.cfg key system.flash.cycles|Failed to read flash write cycles");
    configuration("overwritten\n");
    store.reset();
    EXPECT_EQ(configuration(), "system=5\n") << "a changed tree was dropped";
    EXPECT_TRUE(lockIsFree());
}

TEST_F(SystemCfgTest, HostsTreeMayHoldAnythingAndWhatCannotBeLoadedAgainIsNotWritten) {
    Variant lines, twice, below, good;
    lines["a"] = "two\nlines";
    twice["b"]["1"] = twice["b"]["_1"] = "x";
    below["b"][1] = below["b"]["_1"]["c"] = "x";
    good["b"][1] = 7;
    SystemCfgManager store(&tree, true, true, true);
    ASSERT_TRUE(store.init());
    for (const Variant& bad : {lines, twice, below, Variant("no container")}) {
        tree = bad;
        EXPECT_FALSE(store.write());
        EXPECT_EQ(log.messages(), "Failed to serialize variant to key-value pairs");
    }
    tree = good;
    EXPECT_TRUE(store.set("c", 3, nullptr) && store.set("b.01", 8, nullptr));
    EXPECT_EQ(configuration(), "b.1=7\nb.01=8\nc=3\n");
}

TEST_F(SystemCfgTest, RefusedTextsGiveNoTreeAndNoChanges) {
    using namespace std::string_literals;
    std::vector<SystemCfgManager::Change> changes;
    for (const std::string& text : {"torn"s, "a=1\na..b=1\n"s, "a=1\nb=\0\n"s, "a =1\n"s})
        EXPECT_FALSE(SystemCfgManager::parse(text, changes, nullptr)) << text;
    EXPECT_TRUE(changes.empty());
    tree = "old";
    EXPECT_FALSE(SystemCfgManager::load("torn", tree, nullptr));
    EXPECT_EQ(tree, Variant());
}

TEST_F(SystemCfgTest, NewFileKeepsTheAccessOfTheOldAndGivesNobodyMore) {
    fs::permissions(root.path(), fs::perms(0755));
    fs::permissions(root.path() / "tmp", fs::perms(0777));
    const uid_t self = ::geteuid(), user = test::otherUser, stranger = user + 1;
    const gid_t group = ::getegid(), member = 1234, foreign = 1235;
    // Who writes; owner, group and mode of the old file; group and mode of the new one.
    std::vector<std::tuple<uid_t, uid_t, gid_t, mode_t, gid_t, mode_t>> cases;
    for (const mode_t mode : {0644U, 0660U, 0400U}) cases.emplace_back(self, self, group, mode, group, mode);
    if (self == 0) {  // only root can give a file to another user, and become one
        cases.insert(cases.end(), {{0, 12, 34, 0640, 34, 0640},
                                   {0, 12, group, 0640, group, 0640},
                                   {0, 0, 34, 0640, 34, 0640},
                                   {user, stranger, member, 0660, member, 0660},
                                   {user, user, foreign, 0660, user, 0600},
                                   {user, user, foreign, 0664, user, 0644}});
    }
    for (const auto& [writer, owner, oldGroup, mode, newGroup, newMode] : cases) {
        ASSERT_EQ(::chown(path.c_str(), owner, oldGroup) + ::chmod(path.c_str(), mode), 0);
        ChildProcess child([&, another = writer != self](const ChildProcess&) {
            if (another) test::becomeOtherUser(member);
            SystemCfgManager store;
            return store.init() && store.set("a", "2", nullptr) ? 0 : 1;
        });
        struct stat status {};
        EXPECT_EQ(child.exitStatus(), 0);
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, writer == 0 ? owner : writer);
        EXPECT_EQ(status.st_gid, newGroup);
        EXPECT_EQ(status.st_mode & 0777U, newMode);
        fs::remove(root.path() / "tmp/system.cfg.lock");  // the next writer may be another user
    }
}

TEST_F(SystemCfgTest, SetThatCannotWriteTellsSoAndSpoilsNothing) {
    const fs::path temporary = path.string() + '.' + std::to_string(::getpid());
    const fs::path target = root.write("target", "kept");
    rlimit usual{};
    ASSERT_TRUE(::getrlimit(RLIMIT_FSIZE, &usual) == 0 && ::signal(SIGXFSZ, SIG_IGN) != SIG_ERR);
    SystemCfgManager store;
    ASSERT_TRUE(store.init());
    int value = 1;
    const auto refuses = [&](const char* message, bool planted) {
        const std::string before = configuration();
        const rlimit full{1, usual.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, planted ? &usual : &full);
        EXPECT_FALSE(store.set("a", ++value, nullptr));
        ::setrlimit(RLIMIT_FSIZE, &usual);
        EXPECT_EQ(log.messages(), message);
        EXPECT_EQ(configuration() + root.read("target"), before + "kept");
        EXPECT_EQ(fs::remove(temporary), planted) << "what was planted stays, what was begun does not";
        EXPECT_TRUE(store.set("a", value, nullptr));
        EXPECT_EQ(configuration(), "a=" + std::to_string(value) + '\n');
    };
    fs::create_directory(temporary);
    refuses("Failed to open system.cfg", true);
    refuses("Failed to write system.cfg", false);
    fs::create_symlink(target, temporary);  // is no more in the way than a file that a killed process left
    EXPECT_TRUE(store.set("a", "9", nullptr));
    EXPECT_EQ(configuration() + root.read("target"), "a=9\nkept");
    // Without the lock nothing is written: its file was removed, and somebody else may hold the new one.
    fs::remove(root.path() / "tmp/system.cfg.lock");
    EXPECT_FALSE(store.set("a", "10", nullptr));
    EXPECT_EQ(log.messages(), "Failed to write system.cfg");
    EXPECT_EQ(configuration(), "a=9\n");
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(SystemCfgTest, WritesNothingAfterAReadThatEmptiedTheTree) {
    for (const bool borrowed : {false, true}) {
        configuration("a=1\n");
        fs::remove_all(root.path() / flashFolder);
        auto store = borrowed ? std::make_unique<SystemCfgManager>(&tree, false, true, true)
                              : std::make_unique<SystemCfgManager>();
        ASSERT_TRUE(store->init());
        configuration("damaged\n");
        EXPECT_FALSE(store->read());
        (void)log.take();
        const std::string cause = "Failed to serialize variant to key-value pairs";
        const bool written[] = {store->write(), store->set("a", "2", nullptr), store->set("a", 2, nullptr)};
        EXPECT_THAT(written, testing::Each(false));
        for (const test::LogLine& line : log.take()) EXPECT_EQ(line.message, cause);
        EXPECT_FALSE(store->close(false, true));
        EXPECT_EQ(log.messages(), cause + "|Failed to read flash write cycles");
        EXPECT_EQ(configuration() + flashCopy(), "damaged\n");
        store->markChanged();
        EXPECT_EQ(store->close(false, false), borrowed) << "only a host can have filled its tree again";
        EXPECT_EQ(configuration(), borrowed ? "" : "damaged\n");
        if (borrowed) continue;
        configuration("a=3\n");
        EXPECT_TRUE(store->read() && store->set("b", 4, nullptr) && store->close(false, false));
        EXPECT_EQ(configuration(), "a=3\nb=4\n");
    }
}

TEST_F(SystemCfgTest, ChildOfTheSameProcessIdIsAnotherProcess) {
    ChildProcess first([](const ChildProcess&) {
        if (::unshare(CLONE_NEWPID) != 0) return 77;
        const auto inNamespace = [](const auto& body) {
            const pid_t child = ::fork();
            if (child == 0) ::_exit(body());
            int ended = 0;
            return ::waitpid(child, &ended, 0) == child && WIFEXITED(ended) ? WEXITSTATUS(ended) : 99;
        };
        return inNamespace([&] {
            SystemCfgManager store;
            Variant seen;
            if (::getpid() != 1 || !store.init() || ::unshare(CLONE_NEWPID) != 0) return 2;
            return inNamespace([&] { return ::getpid() != 1 ? 3 : store.getVariant(seen) ? 4 : 0; });
        });
    });
    const int status = first.exitStatus();
    if (status == 77) GTEST_SKIP() << "no pid namespaces here";
    EXPECT_EQ(status, 0);
}

TEST_F(SystemCfgTest, AppliesAllChangesOrNone) {
    for (const auto& [input, expected] : test::readCases("store_changes.txt")) {
        SCOPED_TRACE(input);
        const auto given = test::fields(input), wanted = test::fields(expected);
        std::vector<SystemCfgManager::Change> changes;
        std::istringstream list(given[1]);
        for (std::string change; std::getline(list, change, ';');) {
            const std::size_t equals = change.find('=');
            changes.push_back({change.substr(0, equals), change.substr(equals + 1)});
            if (change[0] == '-') changes.back() = {change.substr(1), std::nullopt};
        }
        configuration(given[0]);
        SystemCfgManager store(&tree, false, true, true);
        ASSERT_TRUE(store.init());
        const Variant before = tree;
        bool differed = true;
        const bool accepted = store.apply(changes, &differed);
        EXPECT_EQ(accepted ? differed ? "accepted, changed" : "accepted" : log.messages(), wanted[0]);
        EXPECT_EQ(configuration(), wanted[1]);
        if (!accepted) {
            EXPECT_TRUE(differed) << "the flag was touched";
            EXPECT_EQ(tree, before);
        }
        EXPECT_TRUE(store.close(true, false));
        EXPECT_EQ(flashCopy().empty(), wanted[0] != "accepted, changed")
            << "what is marked as changed is saved";
        fs::remove_all(root.path() / flashFolder);
    }
}

TEST_F(SystemCfgTest, ChangesThatCannotBeWrittenAreNotMade) {
    SystemCfgManager store(&tree, false, true, true);
    bool differed = false;
    ASSERT_TRUE(store.init());
    const Variant before = tree;
    fs::create_directories(path.string() + '.' + std::to_string(::getpid()) + "/in the way");
    EXPECT_FALSE(store.apply({{"a", "2"}, {"b", "3"}}, &differed));
    EXPECT_EQ(log.messages(), "Failed to open system.cfg");
    EXPECT_FALSE(differed);
    EXPECT_EQ(tree, before);
    EXPECT_EQ(configuration(), "a=1\n");
    EXPECT_TRUE(store.close(true, false));
    EXPECT_EQ(flashCopy(), "") << "marked as changed";
}

/** Makes what store_lives.txt says of a file: its text or a word for what else may be there. */
void make(const test::Device& root, const std::string& name, const std::string& what) {
    const fs::path path = root.path() / name, other = path.string() + ".other";
    fs::remove_all(path);
    fs::remove(other);
    if (what == "lacks") return;
    if (what == "a directory")
        fs::create_directories(path);
    else
        root.write(name, what == "a link" || what == "two names" ? "a=1\n" : what);
    if (what == "a link") fs::rename(path, other), fs::create_symlink(other, path);
    if (what == "two names") fs::create_hard_link(path, other);
}

/** What make() has made. */
std::string found(const test::Device& root, const std::string& name) {
    const fs::path path = root.path() / name;
    const fs::file_status status = fs::symlink_status(path);
    if (!fs::exists(status)) return "lacks";
    if (!fs::is_regular_file(status)) return fs::is_directory(status) ? "a directory" : "a link";
    return fs::hard_link_count(path) > 1 ? "two names" : root.read(name);
}

TEST_F(SystemCfgTest, RestoresAndResetsWholeTexts) {
    const std::string copy = flashFolder + "/system.cfg", damaged = copy + ".damaged";
    for (const auto& [input, expected] : test::readCases("store_lives.txt")) {
        SCOPED_TRACE(input);
        auto given = test::fields(input);
        const auto wanted = test::fields(expected);
        given.resize(5, "lacks");
        const std::string files[] = {"", "tmp/system.cfg", copy, "factory", damaged};
        for (std::size_t i = 1; i < 5; ++i) make(root, files[i], given[i]);
        const std::string defaults = root.path() / "factory";
        using Restored = SystemCfgManager::Restored;
        Restored restored{};
        korvo::Failure noFlash, failure;
        const bool done = given[0] == "reset" ? SystemCfgManager::reset(defaults, &failure)
                                              : SystemCfgManager::restore(defaults, given[0] == "replace",
                                                                          &restored, &noFlash, &failure);
        std::string why;
        if (done && given[0] != "reset")
            why = restored == Restored::Kept ? "kept" : restored == Restored::Flash ? "flash" : "defaults";
        for (const korvo::Failure& each : {noFlash, failure})
            why += (why.empty() || shown(each).empty() ? "" : "; ") + shown(each);
        std::string told = log.messages();
        for (std::string* text : {&told, &why}) {
            korvo::utils::replaceAll(*text, root.path().string() + '/' + copy, "COPY");
            korvo::utils::replaceAll(*text, "ROOT/" + copy, "COPY");
            korvo::utils::replaceAll(*text, root.path(), "ROOT");
            korvo::utils::replaceAll(*text, "|", " + ");
            korvo::utils::replaceAll(*text, std::to_string(::getpid()), "PID");
        }
        EXPECT_EQ(told, wanted[0]);
        EXPECT_EQ(why, wanted[2]);
        EXPECT_EQ(done, shown(failure).empty());
        EXPECT_EQ(done, told.find("Failed") == std::string::npos);
        EXPECT_EQ(found(root, "tmp/system.cfg"), wanted[1]);
        const bool aside = why.find("it is kept as COPY.damaged") != std::string::npos;
        EXPECT_EQ(found(root, copy), aside ? "lacks" : given[2]);
        EXPECT_EQ(found(root, damaged), aside ? given[2] : given[4]);
        EXPECT_TRUE(lockIsFree());
    }
    korvo::Failure failure;
    make(root, "tmp/system.cfg", "lacks");
    make(root, copy, "lacks");
    EXPECT_FALSE(SystemCfgManager::restore("", true, nullptr, nullptr, &failure));
    EXPECT_EQ(shown(failure), "Read: " + messageOf(ENOENT) + ": no defaults are given");
    InterProcessMutex held("system.cfg", true);
    ASSERT_EQ(held.acquire(), 0);
    EXPECT_FALSE(SystemCfgManager::reset("", &failure));
    EXPECT_EQ(shown(failure), "Lock ROOT/tmp/system.cfg.lock: " + messageOf(EDEADLK));
}

TEST_F(SystemCfgTest, ReaderWorksBesideAWriterAndChangesNothing) {
    configuration("port=80\n");
    SystemCfgManager writer, reader(&tree, false, false, true);
    ASSERT_TRUE(writer.init() && reader.initReadOnly());
    EXPECT_EQ(got(reader, "port", 0), "80");
    ASSERT_TRUE(writer.set("port", 81, nullptr) && reader.read());
    EXPECT_EQ(got(reader, "port", 0), "81");
    EXPECT_TRUE(reader.getVariant(tree));

    const test::ReplacementCount replacements(path.parent_path());
    const std::vector<std::function<bool()>> refused = {
        [&] { return reader.set("port", 1, nullptr); }, [&] { return reader.set("port", "1", nullptr); },
        [&] {
            return reader.apply({{"port", "1"}}, nullptr);
        },
        [&] { return reader.write(); }, [&] { return reader.markChanged(), false; }};
    for (const auto& call : refused) {
        EXPECT_FALSE(call());
        EXPECT_EQ(log.messages(), "SystemCfgManager not initialized");
        EXPECT_EQ(shown(reader.failure()), "State: the configuration is open for reading only");
    }
    for (SystemCfgManager* open : {&writer, &reader}) {
        EXPECT_FALSE(open->init() || open->initReadOnly());
        EXPECT_EQ(log.messages(),
                  "SystemCfgManager already initialized|SystemCfgManager already initialized");
    }
    for (const char* const damaged : {"torn\n", ""}) {
        configuration(damaged);
        if (damaged[0] == '\0') fs::remove(path);
        EXPECT_FALSE(reader.read());
        EXPECT_EQ(got(reader, "port", 0), "81") << "a failed read keeps what it had";
    }
    configuration("port=82\n");
    ChildProcess child([&](const ChildProcess&) {
        return reader.read() && got(reader, "port", 0) == "82" && reader.close(true, false) ? 0 : 1;
    });
    EXPECT_EQ(child.exitStatus(), 0) << "a forked child reads on";
    EXPECT_EQ(got(reader, "port", 0), "81");

    EXPECT_TRUE(reader.close(true, false) && reader.initReadOnly());
    EXPECT_FALSE(reader.close(true, true));
    EXPECT_EQ(got(reader, "port", 0), "refused") << "the reading has ended all the same";
    EXPECT_EQ(replacements.take(), 0);
    EXPECT_EQ(configuration() + flashCopy(), "port=82\n");
    EXPECT_TRUE(writer.write()) << "the reader gave away the writer's lock";
}

TEST_F(SystemCfgTest, ReaderNeedsNothingButAFileThatItMayRead) {
    fs::permissions(root.path(), fs::perms(0755));
    fs::permissions(path, fs::perms(0444));
    fs::permissions(path.parent_path(), fs::perms(0555));
    ChildProcess child([&](const ChildProcess&) {
        if (::geteuid() == 0) test::becomeOtherUser();
        SystemCfgManager reader;
        SystemCfgWatch watch;
        return !reader.initReadOnly()       ? 1
               : got(reader, "a", 0) != "1" ? 2
               : !watch.start()             ? 3
               : SystemCfgManager().init()  ? 4  // the harness would not see a lock file
                                            : 0;
    });
    EXPECT_EQ(child.exitStatus(), 0);
    fs::permissions(path.parent_path(), fs::perms(0755));
    EXPECT_EQ(std::distance(fs::directory_iterator(path.parent_path()), {}), 1);
}

TEST_F(SystemCfgTest, ReplacesTheFileOnceForEachChange) {
    const auto set = [](SystemCfgManager& store) { return store.set("a", "2", nullptr); };
    const auto mark = [](SystemCfgManager& store) { return store.markChanged(), true; };
    const auto apply = [](const char* value) {
        return [=](SystemCfgManager& store) { return store.apply({{"a", value}}, nullptr); };
    };
    const auto both = [&](SystemCfgManager& store) { return set(store) && apply("3")(store); };
    struct Case {
        const char* what;
        std::function<bool(SystemCfgManager&)> change;
        int before, closed, saved, forced;  // replacements by the change, and by each way to close
    };
    for (const Case& row : std::vector<Case>{{"apply", apply("2"), 1, 0, 1, 2},
                                             {"apply of equal values", apply("1"), 1, 0, 0, 2},
                                             {"set", set, 1, 1, 2, 2},
                                             {"set and apply", both, 2, 1, 2, 2},
                                             {"the host's own change", mark, 0, 1, 2, 2}}) {
        SCOPED_TRACE(row.what);
        for (const auto& [save, force, expected] :
             {std::tuple(false, false, row.closed), std::tuple(true, false, row.saved),
              std::tuple(false, true, row.forced)}) {
            configuration("a=1\n");
            fs::remove_all(root.path() / flashFolder);
            const test::ReplacementCount replacements(path.parent_path());
            SystemCfgManager store;
            ASSERT_TRUE(store.init() && row.change(store));
            EXPECT_EQ(replacements.take(), row.before);
            EXPECT_TRUE(store.close(save, force));
            EXPECT_EQ(replacements.take(), expected) << save << force;
            EXPECT_TRUE(store.init() && store.close(true, false));
            EXPECT_EQ(replacements.take(), 0) << "nothing has changed since it was opened again";
            EXPECT_EQ(flashCopy(), expected > 0 && (save || force) ? configuration() : "");
        }
    }
}

TEST_F(SystemCfgTest, WatchReportsOnceEachWayInWhichTheConfigurationComesOrGoes) {
    const fs::path folder = path.parent_path(), other = folder / "other", away = root.path() / "away";
    std::ofstream writer;
    const auto renames = [](const fs::path& from, const fs::path& to) {
        return [=] { fs::rename(from, to); };
    };
    const auto writes = [&](const char* text) {
        return [&, text] { writer.open(path), writer << text << std::flush; };
    };
    struct Step {
        const char* what;
        std::function<void()> happen;
        bool isChange = true;
    };
    SystemCfgWatch watch;
    EXPECT_EQ(watch.descriptor(), -1);
    EXPECT_FALSE(watch.takeChange());
    ASSERT_TRUE(watch.start());
    const int descriptor = watch.descriptor();
    for (
        const auto& [what, happen, isChange] : std::vector<Step>{
            {"nothing", [] {}, false},
            {"it is read", [&] { EXPECT_NE(configuration(), ""); }, false},
            {"another file is written", [&] { root.write("tmp/other", "a=2\n"); }, false},
            {"another watch starts", [] { EXPECT_TRUE(SystemCfgWatch().start()); }, false},
            {"this one starts again", [&] { EXPECT_TRUE(watch.start()); }, false},
            {"a rename over it", renames(other, path)},
            {"a store",
             [] {
                 SystemCfgManager store;
                 EXPECT_TRUE(store.init() && store.apply({{"a", "3"}}, nullptr) && store.close(false, false));
             }},
            {"writing in place begins", writes("a=4\n"), false},
            {"writing in place ends", [&] { writer.close(); }},
            {"renamed away", renames(path, other)},
            {"a hard link", [&] { fs::create_hard_link(other, path); }},
            {"removed", [&] { fs::remove(path); }},
            {"a hard link, the only one by now",
             [&] { fs::create_hard_link(other, path), fs::remove(other); }},
            {"removed and back", [&] { fs::rename(path, other), fs::rename(other, path); }},
            {"removed once more", [&] { fs::remove(path); }},
            {"made in place", writes(""), false},
            {"made in place and closed", [&] { writer.close(); }},
            {"a link in its place",
             [&] { fs::create_symlink(root.write("target", "a=5\n"), other), fs::rename(other, path); }},
            {"what the link leads to is written", [&] { root.write("target", "a=6\n"); }, false},
            {"the link goes", [&] { fs::remove(path); }},
            {"a link where nothing was", [&] { fs::create_symlink("target", path); }, false},
            {"from another directory", [&] { fs::rename(root.write("new", "a=7\n"), path); }},
            {"its directory is replaced",
             [&] { fs::rename(folder, away), root.write("tmp/system.cfg", "a=8\n"); }},
            {"the old directory's is written", [&] { root.write("away/system.cfg", "a=9\n"); }, false},
            {"the new directory's is written", [&] { configuration("a=10\n"); }},
        }) {
        SCOPED_TRACE(what);
        happen();
        pollfd events{descriptor, POLLIN, 0};
        EXPECT_TRUE(!isChange || ::poll(&events, 1, 0) == 1);
        EXPECT_EQ(watch.takeChange(), isChange);
        EXPECT_FALSE(watch.takeChange()) << "reported twice";
        EXPECT_EQ(::poll(&events, 1, 0), 0);
        EXPECT_EQ(watch.descriptor(), descriptor);
    }
}

TEST_F(SystemCfgTest, WatchReportsLostEventsAndTheEndOfItsDirectory) {
    SystemCfgWatch watch;
    ASSERT_TRUE(watch.start());
    std::string limit;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    for (int i = std::stoi(limit); i >= 0; --i) root.write(i % 2 == 0 ? "tmp/x" : "tmp/y", "");
    EXPECT_TRUE(watch.takeChange()) << "events were lost";
    configuration("a=2\n");
    EXPECT_TRUE(watch.takeChange());
    const fs::path folder = path.parent_path(), away = root.path() / "away";
    for (const bool removed : {false, true}) {
        removed ? (void)fs::remove_all(folder) : fs::rename(folder, away);
        EXPECT_TRUE(watch.takeChange());
        EXPECT_EQ(watch.descriptor(), -1);
        EXPECT_FALSE(watch.takeChange());
        EXPECT_FALSE(watch.start());
        EXPECT_EQ(errno, ENOENT);
        if (removed) break;
        fs::rename(away, folder);
        EXPECT_TRUE(watch.start());
        configuration("a=3\n");
        EXPECT_TRUE(watch.takeChange());
    }
}

TEST_F(SystemCfgTest, WatchKeepsAwayFromStandardStreamsAndOtherPrograms) {
    ChildProcess child([](const ChildProcess&) {
        for (const int stream : {0, 1, 2}) ::close(stream);
        SystemCfgWatch watch;
        if (!watch.start()) return 1;
        const int descriptor = watch.descriptor();
        return descriptor <= 2                                          ? 2
               : (::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0       ? 3
               : (::fcntl(descriptor, F_GETFL) & O_NONBLOCK) == 0       ? 4
               : ::fcntl(0, F_GETFD) != -1 || ::fcntl(1, F_GETFD) != -1 ? 5
                                                                        : 0;
    });
    EXPECT_EQ(child.exitStatus(), 0);
    const auto open = test::openDescriptors();
    EXPECT_TRUE(SystemCfgWatch().start());
    EXPECT_EQ(test::openDescriptors(), open);
}

TEST_F(SystemCfgTest, WatchMissesNoChangeBesideSeveralWriters) {
    SystemCfgWatch watch;
    SystemCfgManager reader;
    ASSERT_TRUE(watch.start() && reader.initReadOnly());
    const auto write = [](const std::string& key) {
        return [key](const ChildProcess&) {
            for (int i = 1; i <= 100; ++i) {
                SystemCfgManager store;
                if (!store.init() || !store.set(key, i, nullptr) || !store.close(false, false)) return 1;
            }
            return 0;
        };
    };
    ChildProcess one(write("n.1")), two(write("n.2")), three(write("n.3"));
    std::string seen;
    while (seen != "100 100 100") {
        pollfd events{watch.descriptor(), POLLIN, 0};
        ASSERT_GT(::poll(&events, 1, 30000), 0) << "it ended on " << seen;
        if (!watch.takeChange()) continue;
        ASSERT_TRUE(reader.read());
        seen = got(reader, "n.1", 0) + ' ' + got(reader, "n.2", 0) + ' ' + got(reader, "n.3", 0);
    }
    for (ChildProcess* writer : {&one, &two, &three}) EXPECT_EQ(writer->exitStatus(), 0);
}

TEST_F(SystemCfgTest, RestoredTextsComeWithTheAccessOfWhoOwnsTheStore) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    using korvo::utils::FileAccess;
    const uid_t user = test::otherUser, stranger = user + 1;
    const std::string copy = flashFolder + "/system.cfg", lacks = "lacks", damaged = "torn";
    const auto give = [&](const std::string& name, const FileAccess& access) {
        const fs::path file = root.path() / name;
        return !fs::exists(file) ||
               ::chown(file.c_str(), access.owner, access.group) + ::chmod(file.c_str(), access.bits) == 0;
    };
    struct Case {
        std::string operation, workingCopy, flashCopy;
        FileAccess working, flash, directory, wanted;
    };
    for (const Case& each : std::vector<Case>{
             // What comes from flash has the access of the flash copy.
             {"restore", lacks, "a=1\n", {}, {user, 34, 0640}, {user, 56, 0755}, {user, 34, 0640}},
             {"restore", lacks, "a=1\n", {}, {0, 34, 0640}, {user, 56, 0755}, {user, 34, 0640}},
             {"restore", lacks, "a=1\n", {}, {0, 0, 0604}, {0, 56, 0755}, {0, 0, 0604}},
             {"replace",
              "a=3\n",
              "a=1\n",
              {user, 7, 0600},
              {user, 34, 0640},
              {user, 56, 0755},
              {user, 34, 0640}},
             // Another's flash copy is not the store's.
             {"restore", lacks, "a=1\n", {}, {user, 34, 0640}, {0, 56, 0755}, {0, 56, 0640}},
             // What comes from the defaults has that of the working copy, unless somebody planted that.
             {"restore", lacks, damaged, {}, {user, 34, 0600}, {user, 56, 0755}, {user, 56, 0640}},
             {"restore", "", lacks, {user, 7, 0604}, {}, {user, 56, 0755}, {user, 7, 0604}},
             {"restore", "", lacks, {stranger, 7, 0666}, {}, {user, 56, 0755}, {user, 56, 0640}},
             {"reset",
              "a=3\n",
              "a=1\n",
              {user, 7, 0604},
              {user, 34, 0600},
              {user, 56, 0755},
              {user, 7, 0604}},
             {"reset", "a=3\n", lacks, {0, 7, 0600}, {}, {user, 56, 0755}, {0, 7, 0600}},
             {"reset", "a=3\n", lacks, {stranger, 7, 0666}, {}, {0, 56, 0755}, {0, 56, 0640}},
             {"reset", "a link", lacks, {stranger, 7, 0666}, {}, {user, 56, 0755}, {user, 56, 0640}},
         }) {
        SCOPED_TRACE(each.operation + '|' + each.workingCopy + '|' + each.flashCopy + '|' +
                     std::to_string(each.flash.owner) + '|' + std::to_string(each.working.owner));
        fs::create_directories(root.path() / flashFolder);
        make(root, "tmp/system.cfg", each.workingCopy);
        make(root, copy, each.flashCopy);
        make(root, "factory", "a=2\n");
        ASSERT_TRUE(give("tmp/system.cfg", each.working) && give(copy, each.flash) &&
                    give("factory", {0, 0, 0644}) && give(flashFolder, each.directory));
        const std::string defaults = root.path() / "factory";
        EXPECT_TRUE(each.operation == "reset"
                        ? SystemCfgManager::reset(defaults)
                        : SystemCfgManager::restore(defaults, each.operation == "replace"));
        struct stat status {};
        ASSERT_EQ(::lstat(path.c_str(), &status), 0);
        EXPECT_EQ(std::tuple(status.st_uid, status.st_gid, status.st_mode & 0777U),
                  std::tuple(each.wanted.owner, each.wanted.group, each.wanted.bits));
        (void)log.take();
    }
}

}  // namespace
