#include "korvo/variant_utils/system_cfg.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>

#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/child_process.h"
#include "support/device.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

namespace {

namespace fs = std::filesystem;
using korvo::variant::Variant;
using test::ChildProcess;

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
    for (const std::string& text : {"torn"s, "a=1\na..b=1\n"s, "a=1\nb=\0\n"s})
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
    EXPECT_EQ(errno, ESTALE);
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

TEST_F(SystemCfgTest, NothingPrintedGetsIntoAFileWhenTheHostHasClosedItsStandardStreams) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "printing to a stream while its number is taken is what this test does, and a race to "
                    "the sanitizer";
#endif
    for (const std::vector<int>& closed : {std::vector{0, 1, 2}, std::vector{2}, std::vector{1}}) {
        configuration("a=0\n");
        ChildProcess host([&](const ChildProcess&) {
            for (const int stream : {1, 2}) ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), stream);
            for (const int stream : closed) ::close(stream);
            std::atomic<bool> stop{false};
            std::thread prints([&] {
                while (!stop) (void)!(::write(1, "printed\n", 8) + ::write(2, "logged\n", 7));
            });
            SystemCfgManager store;
            bool done = store.init();
            for (int i = 1; i <= 300; ++i) done = done && store.set("a", i, nullptr);
            done = done && store.close(true, false);
            stop = true;
            prints.join();
            const bool stillClosed = ::fcntl(closed.back(), F_GETFD) == -1;
            return done && stillClosed ? 0 : 1;
        });
        EXPECT_EQ(host.exitStatus(), 0);
        EXPECT_EQ(configuration(), "a=300\nsystem.flash.cycles=1\n");
        EXPECT_EQ(flashCopy() + root.read("tmp/system.cfg.lock"), configuration());
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

TEST_F(SystemCfgTest, RestoresAndResetsWholeTexts) {
    const std::string copy = flashFolder + "/system.cfg", lacks = "lacks";
    for (const auto& [input, expected] : test::readCases("store_lives.txt")) {
        SCOPED_TRACE(input);
        const auto given = test::fields(input), wanted = test::fields(expected);
        const std::string files[] = {"tmp/system.cfg", copy, "factory"};
        for (std::size_t i = 0; i < 3; ++i) {
            if (given[i + 1] == lacks)
                fs::remove(root.path() / files[i]);
            else
                root.write(files[i], given[i + 1]);
        }
        const std::string defaults = root.path() / "factory";
        const bool done = given[0] == "reset" ? SystemCfgManager::reset(defaults)
                                              : SystemCfgManager::restore(defaults, given[0] == "replace");
        std::string told = log.messages();
        korvo::utils::replaceAll(told, root.path(), "ROOT");
        EXPECT_EQ(told, wanted[0]);
        EXPECT_EQ(done, told.empty() || told[0] == 'd');
        EXPECT_EQ(fs::exists(path) ? configuration() : lacks, wanted[1]);
        EXPECT_EQ(given[2], fs::exists(root.path() / copy) ? flashCopy() : lacks)
            << "the flash copy is another one";
        EXPECT_TRUE(lockIsFree());
        if (done && given[1] == lacks) {
            EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
        }
    }
    fs::remove(path);
    fs::create_symlink(path.filename(), path);
    root.write(copy, "a=1\n");
    EXPECT_FALSE(SystemCfgManager::restore("", false));
    EXPECT_EQ(log.messages(), "Failed to open system.cfg file") << "what cannot be read is not missing";
}

}  // namespace
