#include "korvo/variant_utils/system_cfg.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>

#include <cerrno>
#include <set>
#include <system_error>

#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/log_capture.h"
#include "support/replacements.h"
#include "support/shell.h"
#include "support/variant_printer.h"

namespace {

namespace fs = std::filesystem;
using korvo::variant::Variant;

/** The pieces of a list between commas. */
std::vector<std::string> listed(const std::string& list) {
    std::vector<std::string> pieces;
    korvo::utils::split(list, ",", pieces);
    return pieces;
}

/** The changes `KEY=VALUE` or, to remove, `-KEY`, of a list. */
std::vector<SystemCfgManager::Change> changesIn(const std::string& list) {
    std::vector<SystemCfgManager::Change> changes;
    for (const std::string& change : listed(list)) {
        const std::size_t equals = change.find('=');
        changes.push_back({change.substr(0, equals), change.substr(equals + 1)});
        if (change[0] == '-') changes.back() = {change.substr(1), std::nullopt};
    }
    return changes;
}

class SystemCfgTest : public testing::Test {
  protected:
    SystemCfgTest() { make("tmp/system.cfg", "a=1\n"); }

    /** Makes a file of a text, or what a word says; found() is the reverse. */
    void make(const std::string& name, const std::string& what) const {
        const fs::path file = root.path() / name;
        fs::remove_all(file);
        if (what == "a directory") return (void)fs::create_directories(file);
        if (what == "a link") return fs::create_symlink("nowhere", file);
        if (what != "lacks") root.write(name, what);
    }
    std::string found(const std::string& name) const {
        const fs::file_status status = fs::symlink_status(root.path() / name);
        if (!fs::exists(status)) return "lacks";
        return fs::is_directory(status) ? "a directory" : fs::is_symlink(status) ? "a link" : root.read(name);
    }

    /** Words for what is another on each run: the flash copy, the device, the process. */
    std::string onDevice(std::string text) const {
        const std::string device = root.path().string() + '/';
        korvo::utils::replaceAll(text, device + copy, "COPY");
        korvo::utils::replaceAll(text, device, "/");
        korvo::utils::replaceAll(text, '.' + std::to_string(::getpid()), ".PID");
        korvo::utils::replaceAll(text, "|", " + ");
        return text;
    }

    /** A failure on one line; nothing when none has failed. */
    std::string shown(const korvo::Failure& failure) const {
        static const char* const steps[] = {"",    "State", "Lock",      "Unlock", "Read", "Load",
                                            "Key", "Value", "Serialize", "Write",  "Save"};
        std::string text = steps[static_cast<std::size_t>(failure.step)];
        if (!failure.subject.empty()) text += ' ' + failure.subject;
        if (failure.line != 0) text += ':' + std::to_string(failure.line);
        if (failure.error != 0) text += ": " + std::generic_category().message(failure.error);
        if (!failure.reason.empty()) text += ": " + failure.reason;
        return onDevice(text);
    }

    std::string answer(SystemCfgManager& user, const std::string& step);

    const test::ShellDevice root{};
    const fs::path path = root.path() / "tmp/system.cfg";
    const std::string copy = std::string(KORVO_FLASH_DIR).substr(1) + "/system.cfg";
    const test::ReplacementCount replacements{path.parent_path()};
    test::LogCapture log;
    Variant tree;
    SystemCfgManager store{&tree, true, true, true};  // strings, with escaped index components
};

/** Takes one step of store_uses.txt. */
std::string SystemCfgTest::answer(SystemCfgManager& user, const std::string& step) {
    const std::string verb = step.substr(0, step.find(' '));
    std::string rest = step.substr(std::min(verb.size() + 1, step.size()));
    korvo::utils::replaceAll(rest, "COPY", copy);
    const std::string key = rest.substr(0, rest.find('=')), value = rest.substr(rest.find('=') + 1);
    if (verb == "each") {
        std::set<std::string> answers;
        for (const std::string& each : listed(rest)) answers.insert(answer(user, each));
        return answers.size() == 1 ? *answers.begin() : testing::PrintToString(answers);
    }
    if (verb == "fault") return SystemCfgManager::keyFault(rest);
    if (verb == "flash") return found(copy);
    if (verb == "replaced") return std::to_string(replacements.take());
    if (verb == "make") return make(key, value), "";
    const Variant before = tree;
    bool flag = true;
    int number = 0;
    std::string text;
    Variant* node = nullptr;
    const bool done = verb == "get"      ? user.get(rest, &text, &flag)
                      : verb == "number" ? user.get(rest, &number, &flag)
                      : verb == "type"   ? user.getSystemCfgValue(rest, korvo::variant::TypeAny, &node)
                      : verb == "set"    ? user.set(key, value, &flag)
                      : verb == "int"    ? user.set(key, std::stoi(value), &flag)
                      : verb == "apply"  ? user.apply(changesIn(rest), &flag)
                      : verb == "init"   ? user.init()
                      : verb == "read"   ? user.read()
                      : verb == "write"  ? user.write()
                      : verb == "mark"   ? (user.markChanged(), user.failure().step == korvo::Step::None)
                                         : user.close(verb == "save", verb == "force");
    const std::string messages = onDevice(log.messages()), why = shown(user.failure());
    EXPECT_EQ(done, messages.empty() && why.empty()) << why;
    const bool wasRefused = !done && (verb == "set" || verb == "apply");
    EXPECT_TRUE(!wasRefused || (flag && tree == before)) << "it left a trace";
    if (!done) return (messages.empty() ? "" : messages + ": ") + why;
    EXPECT_TRUE(verb != "write" || (user.read() && tree == before)) << "it loads as another tree";
    if (verb == "type") return node != nullptr ? test::shown(*node) : "nothing";
    if (verb == "get") return (flag ? "missing, " : "") + text;
    if (verb == "number") return (flag ? "missing, " : "") + std::to_string(number);
    return verb == "set" || verb == "int" || verb == "apply" ? flag ? "differed" : "equal" : "done";
}

TEST_F(SystemCfgTest, AnswersEachStepOfAUseAndLeavesTheFileAsItIsTold) {
    for (const auto& [input, expected] : test::readCases("store_uses.txt")) {
        const auto steps = test::fields(input);
        const std::string& mode = steps[0];
        fs::remove_all((root.path() / copy).parent_path());
        make("tmp/system.cfg", steps[1]);
        std::string answers;
        {
            SystemCfgManager own, hosts(&tree, mode == "escaped", mode != "numbers", true);
            SystemCfgManager& user = mode == "own" ? own : hosts;
            ASSERT_TRUE(mode == "reader" ? user.initReadOnly() : user.init());
            (void)replacements.take();
            for (std::size_t i = 2; i < steps.size(); ++i) answers += answer(user, steps[i]) + '|';
        }  // which writes what was changed
        (void)log.take();
        korvo::utils::replaceAll(answers, std::generic_category().message(ESTALE),
                                 "Stale file handle");  // as glibc words it
        EXPECT_EQ(answers + found("tmp/system.cfg"), expected);
    }
}

TEST_F(SystemCfgTest, WhatCannotBeLoadedAgainIsNotWrittenNorParsed) {
    std::vector<SystemCfgManager::Change> changes;
    EXPECT_FALSE(SystemCfgManager::parse({"a=1\nb=\0", 7}, changes, nullptr) || !changes.empty());
    EXPECT_FALSE(SystemCfgManager::load("torn", tree = "old", nullptr));
    std::vector<SystemCfgManager::Fault> faults = {{0, "torn\ntoo"}};
    EXPECT_FALSE(SystemCfgManager::load(faults[0].reason, tree, &faults));
    EXPECT_EQ(faults.size(), 3U);
    EXPECT_EQ(tree, Variant());
    ASSERT_TRUE(store.init());
    Variant twice, below;
    twice["b"]["1"] = twice["b"]["_1"] = "x";
    below["b"][1] = below["b"]["_1"]["c"] = "x";
    for (const Variant& bad : {twice, below, Variant(5)}) {
        tree = bad;
        EXPECT_FALSE(store.write());
        EXPECT_EQ(shown(store.failure()), "Serialize: the tree cannot be written as key=value text");
        EXPECT_EQ(log.messages(), "Failed to serialize variant to key-value pairs");
    }
    const std::string refused = "Failed to set system.cfg key x.y.0: Key x.y.0: ";
    EXPECT_EQ(answer(store, "set x.y.0=v"), refused + "the tree has a value, so nothing can be below it");
    tree = Variant();
    tree["b"][1] = tree["x"]["y"][0] = 7;
    EXPECT_EQ(answer(store, "set x.y.0=v"), refused + "\"x.y\" has an indexed member of that name");
    EXPECT_TRUE(store.set("b.01", 8, nullptr));
    EXPECT_EQ(found("tmp/system.cfg"), "b.1=7\nb.01=8\nx.y.0=7\n");
}

TEST_F(SystemCfgTest, AForkedChildMayOnlyRead) {
    SystemCfgManager reader, second;
    Variant all;
    ASSERT_TRUE(store.init() && reader.initReadOnly());
    EXPECT_FALSE(second.init() || second.getVariant(all) || store.initReadOnly() || reader.initReadOnly());
    EXPECT_THAT(log.messages(),
                testing::StartsWith("Failed to acquire system.cfg mutex, res=" + std::to_string(EDEADLK)));
    EXPECT_TRUE(store.set("a", 2, nullptr) && store.getVariant(all) && all == tree);
    test::ChildProcess child([&](const test::ChildProcess&) {
        EXPECT_EQ(answer(store, "each get a,set a=2,apply a=3,write,mark,force"),
                  "SystemCfgManager not initialized: State: the configuration is not open");
        EXPECT_TRUE(reader.read() && answer(reader, "number a") == "2" && reader.close(true, false));
        fs::remove(path);
        store.~SystemCfgManager();
        return HasFailure() || fs::exists(path) ? 1 : 0;
    });
    EXPECT_EQ(child.exitStatus(), 0);
    EXPECT_TRUE(reader.close(true, false) && store.close(false, false));
    EXPECT_EQ(found("tmp/system.cfg"), "a=2\n") << "the child or the reader took the lock";
}

TEST_F(SystemCfgTest, RestoresAndResetsWholeTexts) {
    for (const auto& [input, expected] : test::readCases("store_lives.txt")) {
        auto given = test::fields(input);
        given.resize(5, "lacks");
        const std::string files[] = {"", "tmp/system.cfg", copy, "factory", copy + ".damaged"};
        for (std::size_t i = 1; i < 5; ++i) make(files[i], given[i]);
        const std::string defaults = given[3] == "none" ? "" : root.path() / "factory";
        SystemCfgManager::Restored restored{};
        korvo::Failure noFlash, failure;
        const bool isReset = given[0] == "reset";
        const bool done = isReset ? SystemCfgManager::reset(defaults, &failure)
                                  : SystemCfgManager::restore(defaults, given[0] == "replace", &restored,
                                                              &noFlash, &failure);
        EXPECT_EQ(done, shown(failure).empty());
        const char* const words[] = {"kept", "flash", "defaults"};
        std::string outcome = done && !isReset ? words[static_cast<std::size_t>(restored)] : "";
        for (const std::string& why : {shown(noFlash), shown(failure)})
            outcome += (outcome.empty() || why.empty() ? "" : "; ") + why;
        EXPECT_EQ(onDevice(log.messages()) + '|' + found("tmp/system.cfg") + '|' + outcome, expected);
        if (noFlash.reason.find("it is kept as") != std::string::npos)
            given[4] = std::exchange(given[2], "lacks");
        EXPECT_EQ(found(copy) + '|' + found(files[4]), given[2] + '|' + given[4]);
    }
}

TEST_F(SystemCfgTest, TheFileComesWithTheAccessOfWhoOwnsTheStore) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    const std::string prepare =
        "rm -rf tmp/system.cfg $flash && mkdir -p $flash && chown 500:56 $flash\n"
        "put() { echo $1 >$2 && chown $3 $2 && chmod $4 $2; }; put a=2 factory 0:0 644\n";
    // What is there before; what is done; owner, group and bits of the working copy then, and what is logged.
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"put a=3 tmp/system.cfg 12:34 640", "set", "12:34 640\n"},
        // What comes from flash has the access of the flash copy, unless that is not the store's.
        {"put a=1 $flash/system.cfg 500:34 640", "restore", "500:34 640\n"},
        {"put a=1 $flash/system.cfg 0:34 640", "restore", "500:34 640\n"},
        {"put a=1 $flash/system.cfg 600:34 640", "restore",
         "500:56 640\ndamaged flash copy of system.cfg, taking /factory + COPY: it belongs to user 600; it "
         "is kept as COPY.damaged"},
        // What comes from the defaults has that of the working copy, unless somebody planted that.
        {"put '' tmp/system.cfg 0:7 600", "restore", "0:7 600\n"},
        {"put '' tmp/system.cfg 600:7 666", "restore", "500:56 640\n"},
        {"put a=3 tmp/system.cfg 500:7 604; put a=1 $flash/system.cfg 500:34 640", "reset", "500:7 604\n"},
        {"ln -s ../factory tmp/system.cfg", "reset", "500:56 640\n"},
        {"put a=3 tmp/system.cfg 500:7 604; ln tmp/system.cfg second", "reset", "500:56 640\n"},
    };
    for (const auto& [before, operation, access] : cases) {
        SCOPED_TRACE(before);
        ASSERT_EQ(root.run(prepare + before), 0);
        const std::string defaults = root.path() / "factory";
        EXPECT_TRUE(operation == "set"
                        ? store.init() && store.set("a", 4, nullptr) && store.close(false, false)
                    : operation == "reset" ? SystemCfgManager::reset(defaults)
                                           : SystemCfgManager::restore(defaults, false));
        EXPECT_EQ(root.outcome("stat -c '%u:%g %a' tmp/*.cfg") + onDevice(log.messages()), "0|" + access);
    }
}

TEST_F(SystemCfgTest, WatchReportsOnceEachWayInWhichTheConfigurationComesOrGoes) {
    SystemCfgWatch watch;
    EXPECT_FALSE(watch.descriptor() != -1 || watch.takeChange());
    ASSERT_TRUE(watch.start());
    const int descriptor = watch.descriptor();
    const auto changed = [&] {
        pollfd events{descriptor, POLLIN, 0};
        const bool isAnnounced = ::poll(&events, 1, 0) == 1, isChange = watch.takeChange();
        EXPECT_TRUE(isAnnounced || !isChange);
        EXPECT_FALSE(watch.takeChange()) << "reported twice";
        EXPECT_EQ(::poll(&events, 1, 0), 0);
        EXPECT_EQ(watch.descriptor(), descriptor);
        return isChange;
    };
    const std::pair<const char*, bool> cases[] = {
        {"cat tmp/system.cfg", false},
        {"echo a=2 >tmp/other", false},
        {"mv tmp/other tmp/system.cfg", true},
        {"mv tmp/system.cfg tmp/other", true},
        {"ln tmp/other tmp/system.cfg", true},
        {"rm tmp/system.cfg; ln tmp/other tmp/system.cfg; rm tmp/other", true},
        {"mv tmp/system.cfg tmp/other; mv tmp/other tmp/system.cfg", true},
        {"echo a=5 >target; ln -s ../target tmp/other; mv tmp/other tmp/system.cfg", true},
        {"echo a=6 >target", false},
        {"rm tmp/system.cfg", true},
        {"ln -s ../target tmp/system.cfg", false},
        {"echo a=7 >new; mv new tmp/system.cfg", true},
        {"mv tmp away; mkdir tmp; echo a=8 >tmp/system.cfg", true},
        {"echo a=9 >away/system.cfg", false},
        {"echo a=10 >tmp/system.cfg", true},
        {"rm tmp/system.cfg", true},
    };
    for (const auto& [command, isChange] : cases) {
        ASSERT_EQ(root.run(command), 0) << command;
        EXPECT_EQ(changed(), isChange) << command;
    }
    EXPECT_TRUE(SystemCfgWatch().start() && watch.start());
    std::ofstream writer(path);
    EXPECT_FALSE(changed()) << "the begin of writing";
    EXPECT_FALSE((writer << "a=11\n" << std::flush, changed()));
    writer.close();
    EXPECT_TRUE(changed());
}

TEST_F(SystemCfgTest, WatchReportsLostEventsAndTheEndOfItsDirectory) {
    SystemCfgWatch watch;
    ASSERT_TRUE(watch.start());
    int limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    for (int i = limit; i >= 0; --i) root.write(i % 2 == 0 ? "tmp/x" : "tmp/y", "");
    EXPECT_TRUE(watch.takeChange()) << "events were lost";
    for (const char* end : {"mv tmp away", "rm -r tmp"}) {
        make("tmp/system.cfg", "a=2\n");
        ASSERT_TRUE(watch.start() && root.run(end) == 0);
        EXPECT_TRUE(watch.takeChange()) << end;
        EXPECT_FALSE(watch.descriptor() != -1 || watch.takeChange() || watch.start());
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST_F(SystemCfgTest, WatchKeepsAwayFromStandardStreamsAndOtherPrograms) {
    const auto open = test::openDescriptors();
    EXPECT_TRUE(SystemCfgWatch().start());
    EXPECT_EQ(test::openDescriptors(), open);
    test::ChildProcess child([&](const test::ChildProcess&) {
        for (const int stream : {0, 1, 2}) ::close(stream);
        SystemCfgWatch watch;
        const int descriptor = watch.start() ? watch.descriptor() : -1;
        const bool fits = descriptor > 2 && (::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0 &&
                          (::fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0 && ::fcntl(0, F_GETFD) == -1;
        return fits ? 0 : 1;
    });
    EXPECT_EQ(child.exitStatus(), 0);
}

}  // namespace
