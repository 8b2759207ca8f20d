#include "korvo/variant_utils/system_cfg.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <vector>

#include "korvo/utils/device_root.h"
#include "korvo/utils/inter_process_mutex.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using korvo::variant::Variant;
using test::ChildProcess;
using testing::ElementsAre;
using testing::IsEmpty;

const char notInitialized[] = "SystemCfgManager not initialized";

class SystemCfgTest : public testing::Test {
  protected:
    SystemCfgTest() { korvo::utils::setDeviceRoot(root.path()); }

    void configuration(const std::string& text) { root.write("tmp/system.cfg", text); }
    std::string configuration() const { return root.read("tmp/system.cfg"); }
    fs::path path() const { return root.path() / "tmp/system.cfg"; }
    fs::path temporaryPath() const { return path().string() + "." + std::to_string(::getpid()); }
    std::optional<std::string> flashCopy() const {
        const std::string copy = std::string(KORVO_FLASH_DIR).substr(1) + "/system.cfg";
        if (!fs::exists(root.path() / copy)) return std::nullopt;
        return root.read(copy);
    }

    /** Whether no manager of this thread holds the lock. */
    static bool lockIsFree() { return InterProcessMutex("system.cfg", true).acquire() == 0; }

    test::TemporaryDirectory root;
    test::LogCapture log;
};

/** The value of a key in the tree: a string's text, a number in brackets, "-" for none. */
std::string held(SystemCfgManager& store, const std::string& key) {
    Variant* node = nullptr;
    EXPECT_TRUE(store.getSystemCfgValue(key, korvo::variant::TypeAny, &node)) << key;
    if (node == nullptr) return "-";
    if (static_cast<korvo::variant::VariantType>(*node) == korvo::variant::TypeString)
        return static_cast<const std::string&>(*node);
    return "[" + std::to_string(static_cast<long long>(*node)) + "]";
}

TEST_F(SystemCfgTest, LoadsAndWritesBackNothingButWhatTheRulesSay) {
    const struct {
        const char* file;
        bool escape, strings;
        const char *key, *value, *written;
    } cases[] = {
        {"a=off", false, true, "a", "0", "a=0\n"},
        {"a=enabled\r\nb=disable\r\n", false, true, "b", "0", "a=1\nb=0\n"},
        {"a=enable\nb=disabled\n", false, false, "a", "[1]", "a=1\nb=0\n"},
        {"a=online\n", false, true, "a", "online", "a=online\n"},
        {"a=off \nb=x=on\nc=ON\n", false, true, "b", "x=on", "a=off \nb=x=on\nc=ON\n"},
        {"#a=on\n\non=offer\n=on\n", false, true, "on", "offer", "=1\non=offer\n"},
        {"1.1.b=x\n", true, true, "1._1.b", "x", "1.1.b=x\n"},
        {"a.12=x\na.5=y\n", true, true, "a._12", "x", "a.5=y\na.12=x\n"},
        {"a.1=x\na._1=y\na.__4z=z\n", true, true, "a.__1", "y", "a.1=x\na._1=y\na.__4z=z\n"},
        {"a.1=1.1._2=.3\nb=on\n#.1\n", true, true, "a._1", "1.1._2=.3", "a.1=1.1._2=.3\nb=1\n"},
        {"a=007\nb=7\nc=2.50\n", false, false, "a", "007", "a=007\nb=7\nc=2.50\n"},
        {"", false, true, "a", "-", ""},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.file);
        configuration(row.file);
        Variant tree;
        SystemCfgManager store(&tree, row.escape, row.strings, true);
        ASSERT_TRUE(store.init());
        EXPECT_EQ(held(store, row.key), row.value);
        ASSERT_TRUE(store.write());
        EXPECT_EQ(configuration(), row.written);
        const Variant before = tree;
        ASSERT_TRUE(store.read());
        EXPECT_EQ(tree, before) << "what was written loads as another tree";
    }
}

TEST_F(SystemCfgTest, ReadsIntegersAndStringsInBothModes) {
    const struct {
        const char* text;
        bool strings;  ///< typed, all of these are integers and not found as strings
        int integer;
    } cases[] = {
        {"12", true, 12},
        {" \t-12abc", true, -12},
        {"+5", true, 5},
        {"abc", true, 0},
        {"2147483648", true, 2147483647},
        {"-99999999999999999999", true, -2147483647 - 1},
        {"12", false, 12},
        {"18446744073709551615", false, 2147483647},
        {"-4294967303", false, -2147483647 - 1},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.text);
        configuration(std::string("x.y=") + row.text);
        Variant tree;
        SystemCfgManager store(&tree, false, row.strings, true);
        ASSERT_TRUE(store.init());
        int integer = 99;
        std::string string = "99";
        bool notFound = true;
        EXPECT_TRUE(store.get("x.y", &integer, &notFound));
        EXPECT_FALSE(notFound);
        EXPECT_EQ(integer, row.integer);
        EXPECT_TRUE(store.get("x.y", &string, &notFound));
        EXPECT_EQ(notFound, !row.strings);
        EXPECT_EQ(string, row.strings ? row.text : "");
        for (const char* missing : {"x", "x.z", "x.y.z", "y"}) {
            EXPECT_TRUE(store.get(missing, &integer, &notFound) && notFound && integer == -1) << missing;
            EXPECT_TRUE(store.get(missing, &string, &notFound) && notFound && string.empty()) << missing;
        }
        EXPECT_TRUE(store.get("x.y", static_cast<int*>(nullptr), nullptr));
    }
}

TEST_F(SystemCfgTest, StoresAndWritesAtOnceAndTellsWhetherTheValueDiffered) {
    for (const bool strings : {true, false}) {
        configuration("equal=7\nmap.member=1\nn=07\n");
        Variant tree;
        SystemCfgManager store(&tree, false, strings, true);
        ASSERT_TRUE(store.init());
        bool differed = true;
        EXPECT_TRUE(store.set("equal", 7, &differed));
        EXPECT_FALSE(differed);
        fs::remove(path());
        for (const bool first : {true, false}) {
            EXPECT_TRUE(store.set("n", 7, &differed) && differed == first);
            EXPECT_TRUE(store.set("new.a.key", "on", &differed) && differed == first);
            EXPECT_TRUE(store.set("map", -5, &differed) && differed == first);
        }
        EXPECT_EQ(configuration(), "equal=7\nmap=-5\nn=7\nnew.a.key=on\n");
        EXPECT_EQ(held(store, "n"), strings ? "7" : "[7]");
        EXPECT_EQ(held(store, "new.a.key"), "on") << "the boolean words are for loading";
        tree["n"] = 5;
        EXPECT_TRUE(store.set("n", "5", &differed) && differed) << "an integer is no string";
        fs::remove(path());
        EXPECT_TRUE(store.set("n", "5", &differed) && !differed);
        EXPECT_EQ(configuration(), "equal=7\nmap=-5\nn=5\nnew.a.key=on\n") << "an equal value is written too";
    }
}

TEST_F(SystemCfgTest, RefusedKeysAndValuesLeaveNoTrace) {
    std::string components64 = "k";
    for (int i = 1; i < 64; ++i) components64 += ".k";
    configuration("a=1\nm.n=2\n");
    Variant tree;
    SystemCfgManager store(&tree, true, true, true);
    ASSERT_TRUE(store.init());
    tree["list"][0] = "zero";
    const Variant before = tree;
    fs::remove(path());
    const auto refuses = [&](const std::string& key, const std::string& value, bool getRefuses) {
        SCOPED_TRACE(key);
        bool flag = true;
        std::string got = "old";
        EXPECT_FALSE(store.set(key, value, &flag) || (value == "v" && store.set(key, 5, &flag)));
        for (const std::string& message : log.takeMessages())
            EXPECT_THAT(message, testing::StartsWith("Failed to set system.cfg key "));
        EXPECT_EQ(store.get(key, &got, &flag), !getRefuses);
        EXPECT_EQ(log.take().size(), getRefuses ? 1U : 0U);
        EXPECT_TRUE(got.empty() && flag);
        EXPECT_EQ(tree, before);
        EXPECT_FALSE(fs::exists(path())) << "it was written";
    };
    for (const std::string& key :
         {std::string(), std::string("."), std::string("a."), std::string(".a"), std::string("new..b"),
          std::string("new/b"), std::string("new.[1]"), std::string("new.b=c"), std::string("#new"),
          std::string("new.#b"), std::string("new\nb"), std::string("new.\x7f"), std::string("new\0b", 5),
          components64 + ".k"})
        refuses(key, "v", true);
    for (const char* key : {"a.b", "m.n.o.p", "new.1", "new.deep.45.b", "list.0"}) refuses(key, "v", false);
    for (const std::string& value : {std::string("two\nlines"), std::string("cr\r"), std::string("nul\0", 4)})
        refuses("new.b", value, false);
    EXPECT_FALSE(store.set("#", "v", nullptr) || store.get("#", static_cast<int*>(nullptr), nullptr));
    EXPECT_THAT(log.takeMessages(),
                ElementsAre("Failed to set system.cfg key #", "Failed to get system.cfg key #"));
    EXPECT_TRUE(store.close(true, false));
    EXPECT_FALSE(fs::exists(path())) << "a refused set marked the store";

    configuration("a=1\n");
    ASSERT_TRUE(store.init());
    EXPECT_TRUE(store.set(components64, "deepest", nullptr));
    EXPECT_TRUE(store.set("new._45.b", "v=1.1#", nullptr));
    EXPECT_EQ(configuration(), "a=1\n" + components64 + "=deepest\nnew.45.b=v=1.1#\n");
}

TEST_F(SystemCfgTest, EveryOperationNeedsAnOpenManager) {
    configuration("a=1\n");
    SystemCfgManager store;
    const auto refusesEverything = [&] {
        int integer = 5;
        std::string string = "s";
        bool flag = true;
        Variant out = 5;
        EXPECT_FALSE(store.get("a", &integer, &flag) || store.get("a", &string, &flag) ||
                     store.set("a", 2, &flag) || store.set("a", "2", &flag) || store.write() ||
                     store.getVariant(out) || store.close(true, true));
        store.markChanged();
        EXPECT_TRUE(integer == 5 && string == "s" && flag && out == Variant(5));
        std::vector<std::string> functions;
        for (const test::LogLine& line : log.take()) {
            EXPECT_EQ(line.message, notInitialized);
            EXPECT_TRUE(line.sourceFile == "src/system_cfg" && line.level == 3 && line.errorCode == 0);
            functions.push_back(line.function);
        }
        EXPECT_THAT(functions,
                    ElementsAre("get", "get", "set", "set", "write", "getVariant", "close", "markChanged"));
    };
    refusesEverything();
    ASSERT_TRUE(store.init());
    EXPECT_FALSE(store.init());
    EXPECT_THAT(log.takeMessages(), ElementsAre("SystemCfgManager already initialized"));
    Variant out;
    ASSERT_TRUE(store.getVariant(out));
    out["a"] = "2";
    EXPECT_EQ(held(store, "a"), "1");
    {
        SystemCfgManager second;
        EXPECT_FALSE(second.init());
        EXPECT_THAT(log.takeMessages(),
                    ElementsAre("Failed to acquire system.cfg mutex, res=" + std::to_string(EDEADLK)));
    }
    // A forked child has the object but not the lock: it must neither write nor keep the parent from it.
    store.markChanged();
    ChildProcess child([&](const ChildProcess& self) {
        refusesEverything();
        fs::remove(path());
        store.~SystemCfgManager();
        self.tell(fs::exists(path()));
        ::new (&store) SystemCfgManager;
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.hear(), 0) << "the child wrote the file";
    EXPECT_EQ(child.exitStatus(), 0);
    EXPECT_TRUE(store.close(false, false));
    EXPECT_EQ(configuration(), "a=1\n");
    refusesEverything();
    EXPECT_TRUE(store.init());
}

TEST_F(SystemCfgTest, FailedInitTellsWhyAndGivesTheLockBack) {
    Variant tree;
    SystemCfgManager store(&tree, false, true, true);
    fs::create_directory(root.path() / "tmp");
    const auto failsWith = [&](const char* cause) {
        EXPECT_FALSE(store.init());
        EXPECT_THAT(log.takeMessages(), ElementsAre(cause, "Failed to read system.cfg into variant"));
        EXPECT_TRUE(lockIsFree());
    };
    failsWith("Failed to open system.cfg file");
    fs::create_directory(path());
    failsWith("Failed to read system.cfg file");
    fs::remove(path());
    for (const char* text : {"no pair\n", "a=1\na.b=2\n"}) {
        configuration(text);
        failsWith("Failed to deserialize system.cfg file");
        EXPECT_EQ(configuration(), text);
    }
    configuration("a=1\n");
    EXPECT_TRUE(store.init());
}

TEST_F(SystemCfgTest, CloseSavesWhatTheFlagsAsk) {
    for (const int flags : {0, 1, 2, 3, 4, 5, 6, 7}) {
        const bool change = (flags & 1) != 0;
        const bool save = (flags & 2) != 0;
        const bool force = (flags & 4) != 0;
        SCOPED_TRACE(flags);
        fs::remove_all(root.path() / std::string(KORVO_FLASH_DIR).substr(1));
        configuration("a=1\n\n");
        Variant tree;
        SystemCfgManager store(&tree, false, true, true);
        ASSERT_TRUE(store.init());
        if (change) store.markChanged();
        EXPECT_TRUE(store.close(save, force));
        const bool counted = force || (save && change);
        const std::string expected = counted ? "a=1\nsystem.flash.cycles=1\n" : change ? "a=1\n" : "a=1\n\n";
        EXPECT_EQ(configuration(), expected);
        EXPECT_EQ(flashCopy(), counted ? std::optional<std::string>(expected) : std::nullopt);
        EXPECT_TRUE(lockIsFree());
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(SystemCfgTest, CountsFlashWritesUpToTheLargestInteger) {
    const struct {
        const char *stored, *strings, *typed;
    } cases[] = {
        {"41", "42", "42"},
        {"abc", "1", "1"},
        {"041", "42", "1"},
        {"2147483647", "2147483647", "2147483647"},
        {"99999999999", "2147483647", "99999999999"},
    };
    for (const auto& row : cases) {
        for (const bool strings : {true, false}) {
            configuration(std::string("system.flash.cycles=") + row.stored);
            Variant tree;
            SystemCfgManager store(&tree, false, strings, true);
            EXPECT_TRUE(store.init() && store.close(false, true));
            EXPECT_EQ(configuration(),
                      std::string("system.flash.cycles=") + (strings ? row.strings : row.typed) + "\n");
        }
    }
}

TEST_F(SystemCfgTest, FailedCloseStaysOpenUntilItSucceedsOrIsGivenUp) {
    const std::string flashParent =
        std::string(KORVO_FLASH_DIR).substr(1, std::string(KORVO_FLASH_DIR).find('/', 1) - 1);
    configuration("system.flash.cycles=1\n");
    auto store = std::make_unique<SystemCfgManager>();
    root.write(flashParent, "in the way");
    ASSERT_TRUE(store->init());
    ASSERT_TRUE(store->set("a", "b", nullptr));
    EXPECT_FALSE(store->close(true, false));
    EXPECT_THAT(log.takeMessages(), ElementsAre("Failed to save to flash"));
    EXPECT_FALSE(lockIsFree());
    fs::remove(root.path() / flashParent);
    EXPECT_TRUE(store->close(true, false));
    EXPECT_EQ(flashCopy(), "a=b\nsystem.flash.cycles=3\n");

    // The counter cannot be stored below a value.
    configuration("system=5\n");
    ASSERT_TRUE(store->init());
    store->markChanged();
    EXPECT_FALSE(store->close(true, false));
    EXPECT_THAT(log.takeMessages(), ElementsAre("Failed to set system.cfg key system.flash.cycles",
                                                "Failed to read flash write cycles"));
    configuration("overwritten\n");
    store.reset();
    EXPECT_EQ(configuration(), "system=5\n") << "a changed tree was dropped";
    EXPECT_TRUE(lockIsFree());
}

TEST_F(SystemCfgTest, HostsTreeMayHoldAnythingAndWhatCannotBeLoadedAgainIsNotWritten) {
    configuration("a=1\n");
    Variant tree;
    {
        SystemCfgManager store(&tree, true, true, true);
        ASSERT_TRUE(store.init());
        const std::function<void(Variant&)> spoilers[] = {
            [](Variant& all) { all["two\nlines"] = "x"; },
            [](Variant& all) { all["a"] = "two\nlines"; },
            [](Variant& all) { all["b"]["1"] = "x", all["b"]["_1"] = "y"; },
            [](Variant& all) { all["b"][1] = "x", all["b"]["_1"]["c"] = "y"; },
            [](Variant& all) { all = "no container"; },
        };
        const Variant good = tree;
        for (const auto& spoil : spoilers) {
            spoil(tree);
            EXPECT_FALSE(store.write());
            EXPECT_THAT(log.takeMessages(), ElementsAre("Failed to serialize variant to key-value pairs"));
            tree = good;
        }
        tree["b"][1] = 7;
        ASSERT_TRUE(store.set("c", 3, nullptr));
    }
    EXPECT_EQ(configuration(), "a=1\nb.1=7\nc=3\n");
    EXPECT_EQ(tree["b"][1], Variant(7)) << "a borrowed tree stays alive";
}

TEST_F(SystemCfgTest, FailedWriteLeavesTheFileKeepsTheValueAndCleansUp) {
    const fs::path victim = root.write("victim", "precious");
    const fs::path temporary = temporaryPath();
    const auto fails = [&](const std::string& message, const std::function<void()>& spoil,
                           const auto& repair) {
        configuration("a=1\n");
        SystemCfgManager store;
        ASSERT_TRUE(store.init());
        spoil();
        bool differed = false;
        EXPECT_FALSE(store.set("a", "2", &differed) || store.close(false, false));
        repair();
        EXPECT_THAT(log.takeMessages(),
                    ElementsAre(message, message, "Failed to write system.cfg from variant"));
        EXPECT_TRUE(differed && !fs::exists(temporary));
        EXPECT_TRUE(!fs::exists(path()) || configuration() == "a=1\n");
        EXPECT_EQ(root.read("victim"), "precious");
        EXPECT_TRUE(store.close(false, false));
        EXPECT_EQ(configuration(), "a=2\n");
    };
    const auto limit = [](rlim_t bytes) {
        const rlimit size{bytes, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &size);
    };
    const auto unplant = [&] { fs::remove(temporary); };
    fails(
        "Failed to open system.cfg", [&] { fs::create_symlink(victim, temporary); }, unplant);
    fails(
        "Failed to open system.cfg", [&] { fs::create_hard_link(victim, temporary); }, unplant);
    fails(
        "Failed to open system.cfg", [&] { fs::create_directory(temporary); }, unplant);
    fails(
        "Failed to open system.cfg", [&] { ::mkfifo(temporary.c_str(), 0600); }, unplant);
    ::signal(SIGXFSZ, SIG_IGN);
    fails(
        "Failed to write system.cfg", [&] { limit(1); }, [&] { limit(RLIM_INFINITY); });
    fails(
        "Failed to move /tmp/system.cfg." + std::to_string(::getpid()) + " to /tmp/system.cfg",
        [&] { fs::remove(path()), fs::create_directory(path()); }, [&] { fs::remove(path()); });
}

TEST_F(SystemCfgTest, NewFileKeepsTheAccessOfTheOld) {
    for (const mode_t mode : {0600U, 0664U, 0400U}) {
        configuration("a=1\n");
        const bool mayGiveAway = ::geteuid() == 0;
        ASSERT_EQ(::chown(path().c_str(), mayGiveAway ? 12 : ::geteuid(), mayGiveAway ? 34 : ::getegid()), 0);
        ASSERT_EQ(::chmod(path().c_str(), mode), 0);
        struct stat before {
        }, after{};
        ASSERT_EQ(::stat(path().c_str(), &before), 0);
        SystemCfgManager store;
        ASSERT_TRUE(store.init() && store.set("a", "2", nullptr));
        ASSERT_EQ(::stat(path().c_str(), &after), 0);
        EXPECT_EQ(after.st_mode & 07777U, mode);
        EXPECT_TRUE(after.st_uid == before.st_uid && after.st_gid == before.st_gid &&
                    after.st_ino != before.st_ino);
    }
}

/** What processes that each add 1 to a counter many times leave in it. */
int countInProcesses(const std::function<bool()>& increment, const std::function<int()>& result) {
    constexpr int rounds = 50;
    std::list<ChildProcess> children;
    for (int i = 0; i < 4; ++i) {
        children.emplace_back([&](const ChildProcess&) {
            for (int round = 0; round < rounds; ++round) {
                if (!increment()) return 1;
            }
            return 0;
        });
    }
    for (ChildProcess& child : children) EXPECT_EQ(child.exitStatus(), 0);
    return 4 * rounds - result();
}

TEST_F(SystemCfgTest, IncrementsOfSeveralProcessesAllCount) {
    const auto count = [&] { return std::stoi(configuration().substr(2)); };
    configuration("n=0\n");
    const int lostWithoutLock = countInProcesses(
        [&] {
            const int next = count() + 1;
            ::usleep(100);
            root.write("tmp/own." + std::to_string(::getpid()), "n=" + std::to_string(next) + "\n");
            fs::rename(root.path() / ("tmp/own." + std::to_string(::getpid())), path());
            return true;
        },
        count);
    ASSERT_GT(lostWithoutLock, 0) << "this test could not see a lost update";
    configuration("n=0\n");
    const int lost = countInProcesses(
        [] {
            SystemCfgManager store;
            int n = 0;
            return store.init() && store.get("n", &n, nullptr) && store.set("n", n + 1, nullptr) &&
                   store.close(false, false);
        },
        count);
    EXPECT_EQ(lost, 0);
}

}  // namespace
