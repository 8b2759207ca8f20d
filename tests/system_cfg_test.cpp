#include "korvo/variant_utils/system_cfg.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
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
        bool escape;
        bool strings;
        const char* key;
        const char* value;
        const char* written;
    } cases[] = {
        {"a=on\n", false, true, "a", "1", "a=1\n"},
        {"a=off", false, true, "a", "0", "a=0\n"},
        {"a=enabled\r\nb=disable\r\n", false, true, "b", "0", "a=1\nb=0\n"},
        {"a=enable\nb=disabled\n", false, false, "a", "[1]", "a=1\nb=0\n"},
        {"a=online\n", false, true, "a", "online", "a=online\n"},
        {"a=off \nb=x=on\nc=ON\n", false, true, "b", "x=on", "a=off \nb=x=on\nc=ON\n"},
        {"#a=on\n\non=offer\n=on\n", false, true, "on", "offer", "=1\non=offer\n"},
        {"a.1.b=x\n", false, true, "a.1.b", "x", "a.1.b=x\n"},
        {"a.1.b=x\n", true, true, "a._1.b", "x", "a.1.b=x\n"},
        {"a.12=x\na.5=y\n", true, true, "a._12", "x", "a.5=y\na.12=x\n"},
        {"1.2=x\n", true, true, "1._2", "x", "1.2=x\n"},
        {"a.1=x\na._1=y\na.__4z=z\n", true, true, "a.__1", "y", "a.1=x\na._1=y\na.__4z=z\n"},
        {"ip.1=192.168.1.10\n", true, true, "ip._1", "192.168.1.10", "ip.1=192.168.1.10\n"},
        {"a=v._1.2\nb=on\n#.1\n", true, true, "a", "v._1.2", "a=v._1.2\nb=1\n"},
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
        bool strings;
        int integer;
        const char* string;
    } cases[] = {
        // A null string stands for: not found.
        {"12", true, 12, "12"},
        {" \t-12abc", true, -12, " \t-12abc"},
        {"+5", true, 5, "+5"},
        {"abc", true, 0, "abc"},
        {"", true, 0, ""},
        {"2147483648", true, 2147483647, "2147483648"},
        {"-99999999999999999999", true, -2147483647 - 1, "-99999999999999999999"},
        {"12", false, 12, nullptr},
        {"4294967303", false, 2147483647, nullptr},
        {"18446744073709551615", false, 2147483647, nullptr},
        {"-4294967303", false, -2147483647 - 1, nullptr},
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
        EXPECT_EQ(notFound, row.string == nullptr);
        EXPECT_EQ(string, row.string != nullptr ? row.string : "");
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
    const std::string components64 = [] {
        std::string key = "k";
        for (int i = 1; i < 64; ++i) key += ".k";
        return key;
    }();
    const std::string text = "a=1\nm.n=2\nx.y.z=3\n";
    configuration(text);
    Variant tree;
    SystemCfgManager store(&tree, true, true, true);
    ASSERT_TRUE(store.init());
    tree["list"][0] = "zero";
    ASSERT_TRUE(store.write());
    const std::string written = configuration();
    const Variant before = tree;
    const struct {
        std::string key;
        const char* value;
        bool missingForGet;
    } cases[] = {
        {"", "v", false},
        {".", "v", false},
        {"a.", "v", false},
        {".a", "v", false},
        {"new..b", "v", false},
        {"new/b", "v", false},
        {"new.[1]", "v", false},
        {"new.b=c", "v", false},
        {"#new", "v", false},
        {"new.#b", "v", false},
        {"new\nb", "v", false},
        {"new.\x7f", "v", false},
        {std::string("new\0b", 5), "v", false},
        {components64 + ".k", "v", false},
        {"a.b", "v", true},
        {"m.n.o.p", "v", true},
        {"new.1", "v", true},
        {"new.deep.45.b", "v", true},
        {"list.0", "v", true},
        {"new.b", "two\nlines", true},
        {"new.b", "cr\r", true},
        {"new.b", nullptr, true},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.key);
        const std::string value = row.value != nullptr ? row.value : std::string("nul\0", 4);
        std::vector<std::string> expected;
        bool flag = true;
        EXPECT_FALSE(store.set(row.key, value, &flag));
        expected.push_back(std::string("Failed to set system.cfg key ") + row.key.c_str());
        std::string got = "old";
        EXPECT_EQ(store.get(row.key, &got, &flag), row.missingForGet);
        EXPECT_EQ(got, "");
        if (!row.missingForGet)
            expected.push_back(std::string("Failed to get system.cfg key ") + row.key.c_str());
        EXPECT_TRUE(flag);
        const std::vector<std::string> messages = log.takeMessages();
        ASSERT_EQ(messages.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i)
            EXPECT_THAT(messages[i],
                        testing::StartsWith(expected[i].substr(0, expected[i].find_first_of("\n\x7f"))));
        EXPECT_EQ(tree, before);
        EXPECT_EQ(configuration(), written);
    }
    // Nothing was marked: closing saves nothing.
    fs::remove(path());
    EXPECT_TRUE(store.close(true, false));
    EXPECT_FALSE(fs::exists(path()));
    configuration(text);
    ASSERT_TRUE(store.init());
    EXPECT_TRUE(store.set(components64, "deepest", nullptr));
    EXPECT_TRUE(store.set("new._45.b", "v=1.1#", nullptr));
    EXPECT_EQ(configuration(), "a=1\n" + components64 + "=deepest\nm.n=2\nnew.45.b=v=1.1#\nx.y.z=3\n");
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
        const char* stored;
        const char* strings;
        const char* typed;
    } cases[] = {
        {"41", "42", "42"},
        {"abc", "1", "1"},
        {"041", "42", "1"},
        {"-1", "0", "0"},
        {"2147483646", "2147483647", "2147483647"},
        {"2147483647", "2147483647", "2147483647"},
        {"99999999999", "2147483647", "99999999999"},
    };
    for (const auto& row : cases) {
        for (const bool strings : {true, false}) {
            const std::string line = "system.flash.cycles=";
            configuration(line + row.stored);
            Variant tree;
            SystemCfgManager store(&tree, false, strings, true);
            ASSERT_TRUE(store.init());
            EXPECT_TRUE(store.close(false, true));
            EXPECT_EQ(configuration(), line + (strings ? row.strings : row.typed) + "\n")
                << row.stored << strings;
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
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    const rlimit oneByte{1, RLIM_INFINITY};
    const fs::path victim = root.write("victim", "precious");
    const fs::path temporary = temporaryPath();
    const std::string moving =
        "Failed to move /tmp/system.cfg." + std::to_string(::getpid()) + " to /tmp/system.cfg";
    const struct {
        const char* name;
        std::function<void()> spoil;
        std::function<void()> repair;
        std::string message;
    } cases[] = {
        {"link", [&] { fs::create_symlink(victim, temporary); }, [&] { fs::remove(temporary); },
         "Failed to open system.cfg"},
        {"other name", [&] { fs::create_hard_link(victim, temporary); }, [&] { fs::remove(temporary); },
         "Failed to open system.cfg"},
        {"folder", [&] { fs::create_directory(temporary); }, [&] { fs::remove(temporary); },
         "Failed to open system.cfg"},
        {"pipe", [&] { ::mkfifo(temporary.c_str(), 0600); }, [&] { fs::remove(temporary); },
         "Failed to open system.cfg"},
        {"full", [&] { ::setrlimit(RLIMIT_FSIZE, &oneByte); }, [&] { ::setrlimit(RLIMIT_FSIZE, &unlimited); },
         "Failed to write system.cfg"},
        {"target", [&] { fs::remove(path()), fs::create_directory(path()); }, [&] { fs::remove(path()); },
         moving},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        configuration("a=1\n");
        SystemCfgManager store;
        ASSERT_TRUE(store.init());
        row.spoil();
        bool differed = false;
        EXPECT_FALSE(store.set("a", "2", &differed));
        EXPECT_TRUE(differed);
        EXPECT_FALSE(store.close(false, false));
        row.repair();
        EXPECT_THAT(log.takeMessages(),
                    ElementsAre(row.message, row.message, "Failed to write system.cfg from variant"));
        EXPECT_TRUE(!fs::exists(path()) || configuration() == "a=1\n");
        EXPECT_FALSE(fs::exists(temporary));
        EXPECT_EQ(root.read("victim"), "precious");
        EXPECT_TRUE(store.close(false, false));
        EXPECT_EQ(configuration(), "a=2\n");
    }
}

TEST_F(SystemCfgTest, NewFileKeepsTheAccessOfTheOld) {
    for (const mode_t mode : {0600U, 0644U, 0660U, 0400U}) {
        configuration("a=1\n");
        ::chmod(path().c_str(), mode);
        const uid_t owner = ::geteuid() == 0 ? 12 : ::geteuid();
        ASSERT_EQ(::chown(path().c_str(), owner, ::geteuid() == 0 ? 34 : ::getegid()), 0);
        struct stat before {};
        ASSERT_EQ(::stat(path().c_str(), &before), 0);
        SystemCfgManager store;
        ASSERT_TRUE(store.init() && store.set("a", "2", nullptr));
        struct stat after {};
        ASSERT_EQ(::stat(path().c_str(), &after), 0);
        EXPECT_NE(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_mode & 07777U, mode);
        EXPECT_TRUE(after.st_uid == before.st_uid && after.st_gid == before.st_gid);
    }
}

/** What processes that each add 1 to a counter many times leave in it. */
int countInProcesses(const std::function<bool()>& increment, const std::function<int()>& result) {
    constexpr int rounds = 50;
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int i = 0; i < 4; ++i) {
        children.push_back(std::make_unique<ChildProcess>([&](const ChildProcess&) {
            for (int round = 0; round < rounds; ++round) {
                if (!increment()) return 1;
            }
            return 0;
        }));
    }
    for (const auto& child : children) EXPECT_EQ(child->exitStatus(), 0);
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
