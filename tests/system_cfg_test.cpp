#include "korvo/variant_utils/system_cfg.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>

#include <functional>
#include <memory>
#include <set>
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

/** Device files are made and shown by their content, or by a word for what else may be there. */
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

std::string found(const test::Device& root, const std::string& name) {
    const fs::path path = root.path() / name;
    const fs::file_status status = fs::symlink_status(path);
    if (!fs::exists(status)) return "lacks";
    if (!fs::is_regular_file(status)) return fs::is_directory(status) ? "a directory" : "a link";
    return fs::hard_link_count(path) > 1 ? "two names" : root.read(name);
}

class SystemCfgTest : public testing::Test {
  protected:
    SystemCfgTest() { configuration("a=1\n"); }

    void configuration(const std::string& text) { root.write("tmp/system.cfg", text); }
    std::string configuration() const { return root.read("tmp/system.cfg"); }
    std::string flashCopy() const { return root.read(copy); }
    /** Whether no manager of this thread holds the lock. */
    static bool lockIsFree() { return InterProcessMutex("system.cfg", true).acquire() == 0; }
    /** Another process with this one's managers; they do what they say. */
    static int inAChild(const std::function<bool()>& body) {
        return ChildProcess([&](const ChildProcess&) { return body() && !HasFailure() ? 0 : 1; })
            .exitStatus();
    }

    /** What get() delivers of a key. */
    template <class Value>
    static std::string got(SystemCfgManager& user, const std::string& key, Value value) {
        bool notFound = true;
        if (!user.get(key, &value, &notFound)) return "refused";
        std::ostringstream text;
        text << (notFound ? "missing, " : "") << value;
        return text.str();
    }

    std::string refused(SystemCfgManager& user, const std::string& key, const std::string& value);
    std::string answer(SystemCfgManager& user, const std::string& step);

    /** A failure on one line; nothing when none has failed. */
    std::string shown(const korvo::Failure& failure) const {
        static const char* const steps[] = {"",    "State", "Lock",      "Unlock", "Read", "Load",
                                            "Key", "Value", "Serialize", "Write",  "Save"};
        std::string text = steps[static_cast<std::size_t>(failure.step)];
        if (!failure.subject.empty()) text += ' ' + failure.subject;
        if (failure.line != 0) text += ':' + std::to_string(failure.line);
        if (failure.error != 0) text += ": " + messageOf(failure.error);
        if (!failure.reason.empty()) text += ": " + failure.reason;
        return onDevice(text);
    }

    /** Words for what is another on each run: the device, the flash directory, the process; or back from them. */
    std::string onDevice(std::string text, bool back = false) const {
        const std::pair<std::string, std::string> words[] = {
            {root.path().string() + '/' + copy, "COPY"},
            {flashFolder, "FLASH"},
            {"system.cfg." + std::to_string(::getpid()), "system.cfg.PID"},
            {root.path().string() + '/', "/"}};
        for (const auto& [name, word] : words) {
            if (!back || word != "/") korvo::utils::replaceAll(text, back ? word : name, back ? name : word);
        }
        return text;
    }

    /** "done", or what a call of a store has logged and why it failed. */
    std::string result(SystemCfgManager& called, bool done) {
        std::string messages = onDevice(log.messages());
        korvo::utils::replaceAll(messages, "|", " + ");
        EXPECT_EQ(done, messages.empty() && shown(called.failure()).empty());
        return done ? "done" : (messages.empty() ? "" : messages + ": ") + shown(called.failure());
    }

    test::Device root;
    const fs::path path = root.path() / "tmp/system.cfg";
    const fs::path temporary = path.string() + '.' + std::to_string(::getpid());
    const std::string flashFolder = std::string(KORVO_FLASH_DIR).substr(1),
                      copy = flashFolder + "/system.cfg";
    std::unique_ptr<test::ReplacementCount> replacements;
    test::LogCapture log;
    Variant tree;
    SystemCfgManager store{&tree, true, true, true};  // strings, with escaped index components
};

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

/** Refuses a key or a value without a trace; why, and whether get() refuses the key too. */
std::string SystemCfgTest::refused(SystemCfgManager& user, const std::string& key, const std::string& value) {
    const Variant before = tree;
    bool flag = true;
    EXPECT_FALSE(user.set(key, value, &flag));
    EXPECT_THAT(log.messages(), testing::StartsWith("Failed to set system.cfg key "));
    EXPECT_EQ(user.failure().subject, key);
    const std::string reason = user.failure().reason;
    Variant* node = &tree;
    std::string lastKey = key;
    if (value == "v") user.getLastNode(lastKey, node, lastKey);
    EXPECT_TRUE(value != "v" || (node == nullptr && lastKey.empty()));
    const std::string read = got(user, key, std::string("old"));
    EXPECT_EQ(log.messages().empty(), read == "missing, ");
    EXPECT_TRUE(flag && tree == before);
    return reason + (read == "refused" ? ", get too" : "");
}

/** Takes one step of store_uses.txt. */
std::string SystemCfgTest::answer(SystemCfgManager& user, const std::string& step) {
    const std::string verb = step.substr(0, step.find(' '));
    std::string rest = onDevice(step.substr(std::min(verb.size() + 1, step.size())), true);
    const std::string key = rest.substr(0, rest.find('=')), value = rest.substr(rest.find('=') + 1);
    const fs::path file = root.path() / rest;
    bool differs = true;
    const Variant before = tree;
    Variant* node = nullptr;
    if (verb == "get" || verb == "number") {
        const std::string read = verb == "get" ? got(user, rest, std::string("old")) : got(user, rest, 99);
        return read == "refused" ? result(user, false) : read;
    }
    if (verb == "refuse") {
        std::set<std::string> reasons;
        for (const std::string& pair : listed(rest))
            reasons.insert(refused(user, pair.substr(0, pair.rfind('=')), pair.substr(pair.rfind('=') + 1)));
        return reasons.size() == 1 ? *reasons.begin() : testing::PrintToString(reasons);
    }
    if (verb == "flash") return flashCopy();
    if (verb == "replaced") return std::to_string(replacements->take());
    if (verb == "file") return configuration(rest), "";
    if (verb == "plant") return root.write(rest, "in the way"), "";
    if (verb == "link") return fs::create_symlink(root.write("target", "kept"), file), "";
    if (verb == "remove") return fs::remove_all(file) > 0 ? "" : "there is none";
    const bool done = verb == "set"     ? user.set(key, value, &differs)
                      : verb == "int"   ? user.set(key, std::stoi(value), &differs)
                      : verb == "apply" ? user.apply(changesIn(rest), &differs)
                      : verb == "type"  ? user.getSystemCfgValue(rest, korvo::variant::TypeAny, &node)
                      : verb == "init"  ? user.init()
                      : verb == "read"  ? user.read()
                      : verb == "write" ? user.write()
                      : verb == "mark"  ? (user.markChanged(), user.failure().step == korvo::Step::None)
                                        : user.close(verb == "save", verb == "force");
    EXPECT_TRUE(done || verb != "apply" || (differs && tree == before)) << "flag or tree were touched";
    EXPECT_TRUE(verb != "write" || !done || (user.read() && tree == before)) << "it loads as another tree";
    if (!done) return result(user, false);
    if (verb == "type") return node != nullptr ? test::shown(*node) : "nothing";
    return verb == "set" || verb == "int" || verb == "apply" ? differs ? "differed" : "equal" : "done";
}

TEST_F(SystemCfgTest, AnswersEachStepOfAUseAndLeavesTheFileAsItIsTold) {
    for (const auto& [input, expected] : test::readCases("store_uses.txt")) {
        SCOPED_TRACE(input);
        const auto steps = test::fields(input);
        for (const std::string& directory : {std::string("tmp"), flashFolder})
            fs::remove_all(root.path() / directory);
        configuration(steps[1]);
        auto user = steps[0] == "own" ? std::make_unique<SystemCfgManager>()
                                      : std::make_unique<SystemCfgManager>(&tree, steps[0] == "escaped",
                                                                           steps[0] != "numbers", true);
        ASSERT_TRUE(user->init());
        (void)log.take();
        replacements = std::make_unique<test::ReplacementCount>(path.parent_path());
        std::string answers;
        for (std::size_t i = 2; i < steps.size(); ++i) answers += answer(*user, steps[i]) + '|';
        user.reset();  // which writes what was changed
        EXPECT_EQ(answers + configuration(), expected);
        EXPECT_TRUE(lockIsFree());
        EXPECT_FALSE(fs::is_regular_file(temporary));
    }
}

TEST_F(SystemCfgTest, WhatCannotBeLoadedAgainIsNotWrittenNorParsed) {
    using namespace std::string_literals;
    std::vector<SystemCfgManager::Change> changes;
    for (const std::string& text : {"torn"s, "a=1\na..b=1\n"s, "a=1\nb=\0\n"s, "a =1\n"s})
        EXPECT_FALSE(SystemCfgManager::parse(text, changes, nullptr)) << text;
    EXPECT_TRUE(changes.empty());
    EXPECT_FALSE(SystemCfgManager::load("torn", tree = "old", nullptr));
    EXPECT_EQ(tree, Variant());
    ASSERT_TRUE(store.init());
    Variant lines, twice, below;
    lines["a"] = "two\nlines";
    twice["b"]["1"] = twice["b"]["_1"] = "x";
    below["b"][1] = below["b"]["_1"]["c"] = "x";
    for (const Variant& bad : {lines, twice, below, Variant(5)}) {
        tree = bad;
        EXPECT_FALSE(store.write());
        EXPECT_EQ(log.messages(), "Failed to serialize variant to key-value pairs");
    }
    EXPECT_EQ(refused(store, "a", "v"), "the tree has a value, so nothing can be below it");
    tree = Variant();
    tree["b"][1] = 7;
    EXPECT_EQ(refused(store, "b.1", "v"), "an index component of it has no underscore");
    tree["x"]["y"][0] = 7;
    EXPECT_EQ(refused(store, "x.y.0", "v"), "\"x.y\" has an indexed member of that name");
    EXPECT_TRUE(store.set("b.01", 8, nullptr));
    EXPECT_EQ(configuration(), "b.1=7\nb.01=8\nx.y.0=7\n");
    std::string key = "b.c";
    Variant* node = nullptr;
    store.getLastNode(key, node, key);
    EXPECT_TRUE(node != nullptr && key == "c") << "the last key may replace the key";
    EXPECT_FALSE(store.get("a..b", &key, nullptr) || store.get(store.failure().subject, &key, nullptr));
    EXPECT_EQ(store.failure().subject, "a..b") << "a key may be a text of the failure";
}

TEST_F(SystemCfgTest, EveryOperationNeedsAManagerOpenInThisProcess) {
    const std::string refused = "SystemCfgManager not initialized: State: the configuration is not open";
    const auto refusesEverything = [&] {
        int integer = 5;
        std::string string = "s";
        bool flag = true;
        Variant out = 5;
        EXPECT_EQ(result(store, store.get("a", &integer, &flag)), refused);
        EXPECT_EQ(result(store, store.get("a", &string, &flag)), refused);
        EXPECT_EQ(result(store, store.set("a", 2, &flag)), refused);
        EXPECT_EQ(result(store, store.apply({{"a", "2"}}, &flag)), refused);
        EXPECT_EQ(result(store, store.write()), refused);
        EXPECT_EQ(result(store, store.getVariant(out)), refused);
        EXPECT_EQ(result(store, store.close(true, true)), refused);
        EXPECT_EQ(result(store, (store.markChanged(), false)), refused);
        EXPECT_EQ(std::tuple(integer, string, flag, out), std::tuple(5, "s", true, Variant(5)));
        return true;
    };
    configuration("no pair\n");
    EXPECT_FALSE(store.init());
    EXPECT_EQ(log.messages(), "Failed to deserialize system.cfg file|Failed to read system.cfg into variant");
    EXPECT_TRUE(lockIsFree() && refusesEverything());
    configuration("a=1\n");
    ASSERT_TRUE(store.init());
    SystemCfgManager second;
    EXPECT_EQ(result(store, store.init()),
              "SystemCfgManager already initialized: State: the configuration is open already");
    EXPECT_EQ(result(second, second.init()),
              "Failed to acquire system.cfg mutex, res=" + std::to_string(EDEADLK) +
                  ": Lock /tmp/system.cfg.lock: " + messageOf(EDEADLK));
    Variant out;
    ASSERT_TRUE(store.getVariant(out));
    out["a"] = "2";  // in a copy, so that the file keeps its value
    // A forked child has the object but not the lock: it must neither write nor keep the parent from it.
    store.markChanged();
    EXPECT_EQ(inAChild([&] {
                  return refusesEverything() && fs::remove(path) &&
                         (store.~SystemCfgManager(), !fs::exists(path));
              }),
              0);
    EXPECT_TRUE(store.close(false, false));
    EXPECT_EQ(configuration(), "a=1\n");
    EXPECT_TRUE(refusesEverything());
    EXPECT_EQ(inAChild([&] { return store.init() && store.close(true, false); }), 0);
}

TEST_F(SystemCfgTest, RestoresAndResetsWholeTexts) {
    using Restored = SystemCfgManager::Restored;
    const std::string damaged = copy + ".damaged", defaults = root.path() / "factory";
    for (const auto& [input, expected] : test::readCases("store_lives.txt")) {
        SCOPED_TRACE(input);
        auto given = test::fields(input);
        const auto wanted = test::fields(expected);
        given.resize(5, "lacks");
        const std::string files[] = {"", "tmp/system.cfg", copy, "factory", damaged};
        for (std::size_t i = 1; i < 5; ++i) make(root, files[i], given[i]);
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
        std::string logged = onDevice(log.messages());
        korvo::utils::replaceAll(logged, "|", " + ");
        EXPECT_EQ(logged, wanted[0]);
        EXPECT_EQ(why, wanted[2]);
        EXPECT_EQ(done, shown(failure).empty() && logged.find("Failed") == std::string::npos);
        EXPECT_EQ(found(root, "tmp/system.cfg"), wanted[1]);
        const bool aside = why.find("it is kept as COPY.damaged") != std::string::npos;
        EXPECT_EQ(found(root, copy), aside ? "lacks" : given[2]);
        EXPECT_EQ(found(root, damaged), aside ? given[2] : given[4]);
        EXPECT_TRUE(lockIsFree());
    }
    korvo::Failure failure;
    for (const std::string& file : {std::string("tmp/system.cfg"), copy}) make(root, file, "lacks");
    EXPECT_FALSE(SystemCfgManager::restore("", true, nullptr, nullptr, &failure));
    EXPECT_EQ(shown(failure), "Read: " + messageOf(ENOENT) + ": no defaults are given");
    InterProcessMutex held("system.cfg", true);
    ASSERT_EQ(held.acquire(), 0);
    EXPECT_FALSE(SystemCfgManager::reset("", &failure));
    EXPECT_EQ(shown(failure), "Lock /tmp/system.cfg.lock: " + messageOf(EDEADLK));
}

TEST_F(SystemCfgTest, TheFileComesWithTheAccessOfWhoOwnsTheStore) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    using korvo::utils::FileAccess;
    const uid_t user = test::otherUser, stranger = user + 1;
    const gid_t group = 56;  // of the flash directory
    const std::string none = "lacks", torn = "torn", set = "set";
    const auto give = [&](const std::string& name, const FileAccess& access) {
        const fs::path file = root.path() / name;
        return !fs::exists(file) ||
               ::chown(file.c_str(), access.owner, access.group) + ::chmod(file.c_str(), access.bits) == 0;
    };
    struct Case {
        std::string operation, workingCopy, flashCopy;
        FileAccess working, flash;
        uid_t owner;  // of the flash directory
        FileAccess wanted;
    };
    for (const Case& each : std::vector<Case>{
             {"set", "a=3\n", none, {12, 34, 0640}, {}, 0, {12, 34, 0640}},
             // What comes from flash has the access of the flash copy.
             {"restore", none, "a=1\n", {}, {user, 34, 0640}, user, {user, 34, 0640}},
             {"restore", none, "a=1\n", {}, {0, 34, 0640}, user, {user, 34, 0640}},
             // Another's flash copy is not the store's.
             {"restore", none, "a=1\n", {}, {user, 34, 0640}, 0, {0, group, 0640}},
             // What comes from the defaults has that of the working copy, unless somebody planted that.
             {"restore", none, torn, {}, {user, 34, 0600}, user, {user, group, 0640}},
             {"restore", "", none, {user, 7, 0604}, {}, user, {user, 7, 0604}},
             {"restore", "", none, {stranger, 7, 0666}, {}, user, {user, group, 0640}},
             {"reset", "a=3\n", "a=1\n", {user, 7, 0604}, {user, 34, 0600}, user, {user, 7, 0604}},
             {"reset", "a=3\n", none, {0, 7, 0600}, {}, user, {0, 7, 0600}},
             {"reset", "a link", none, {stranger, 7, 0666}, {}, user, {user, group, 0640}},
         }) {
        SCOPED_TRACE(each.operation + '|' + each.workingCopy + '|' + each.flashCopy + '|' +
                     std::to_string(each.flash.owner) + '|' + std::to_string(each.working.owner));
        fs::create_directories(root.path() / flashFolder);
        make(root, "tmp/system.cfg", each.workingCopy);
        make(root, copy, each.flashCopy);
        const std::string defaults = root.write("factory", "a=2\n");
        ASSERT_TRUE(give("tmp/system.cfg", each.working) && give(copy, each.flash) &&
                    give("factory", {0, 0, 0644}) && give(flashFolder, {each.owner, group, 0755}));
        if (each.operation == "set")
            EXPECT_TRUE(store.init() && store.set("a", "4", nullptr) && store.close(false, false));
        else
            EXPECT_TRUE(each.operation == "reset"
                            ? SystemCfgManager::reset(defaults)
                            : SystemCfgManager::restore(defaults, each.operation == "replace"));
        struct stat status {};
        ASSERT_EQ(::lstat(path.c_str(), &status), 0);
        EXPECT_EQ(std::tuple(status.st_uid, status.st_gid, status.st_mode & 0777U),
                  std::tuple(each.wanted.owner, each.wanted.group, each.wanted.bits));
    }
}

TEST_F(SystemCfgTest, ReaderWorksBesideAWriterAndChangesNothing) {
    configuration("port=80\n");
    SystemCfgManager writer, reader(&tree, false, false, true);
    ASSERT_TRUE(writer.init() && reader.initReadOnly());
    EXPECT_EQ(got(reader, "port", 0), "80");
    ASSERT_TRUE(writer.set("port", 81, nullptr) && reader.read() && reader.getVariant(tree));
    replacements = std::make_unique<test::ReplacementCount>(path.parent_path());
    const std::string refused =
        "SystemCfgManager not initialized: State: the configuration is open for reading only";
    EXPECT_EQ(result(reader, reader.set("port", 1, nullptr)), refused);
    EXPECT_EQ(result(reader, reader.apply({{"port", "1"}}, nullptr)), refused);
    EXPECT_EQ(result(reader, reader.write()), refused);
    EXPECT_EQ(result(reader, (reader.markChanged(), false)), refused);
    EXPECT_FALSE(writer.initReadOnly() || reader.init() || reader.initReadOnly());
    configuration("torn\n");
    EXPECT_FALSE(reader.read());
    EXPECT_EQ(got(reader, "port", 0), "81") << "a failed read keeps what it had";
    configuration("port=82\n");
    EXPECT_EQ(inAChild([&] {
                  return reader.read() && got(reader, "port", 0) == "82" && reader.close(true, false);
              }),
              0);
    EXPECT_TRUE(reader.close(true, false) && reader.initReadOnly());
    EXPECT_FALSE(reader.close(true, true));
    EXPECT_EQ(got(reader, "port", 0), "refused") << "the reading has ended all the same";
    EXPECT_EQ(replacements->take(), 0);
    EXPECT_EQ(configuration() + flashCopy(), "port=82\n");
    EXPECT_TRUE(writer.write()) << "the reader gave away the writer's lock";
}

TEST_F(SystemCfgTest, ReaderNeedsNothingButAFileThatItMayRead) {
    fs::permissions(root.path(), fs::perms(0755));
    fs::permissions(path, fs::perms(0444));
    fs::permissions(path.parent_path(), fs::perms(0555));
    EXPECT_EQ(inAChild([&] {
                  if (::geteuid() == 0) test::becomeOtherUser();
                  SystemCfgManager reader;
                  SystemCfgWatch watch;
                  EXPECT_TRUE(reader.initReadOnly() && got(reader, "a", 0) == "1" && watch.start());
                  return !SystemCfgManager().init();  // the harness would not see a lock file
              }),
              0);
    fs::permissions(path.parent_path(), fs::perms(0755));
    EXPECT_EQ(std::distance(fs::directory_iterator(path.parent_path()), {}), 1);
}

TEST_F(SystemCfgTest, WatchReportsOnceEachWayInWhichTheConfigurationComesOrGoes) {
    const fs::path folder = path.parent_path(), other = folder / "other", away = root.path() / "away";
    std::ofstream writer;
    SystemCfgWatch watch;
    EXPECT_FALSE(watch.descriptor() != -1 || watch.takeChange());
    ASSERT_TRUE(watch.start());
    const int descriptor = watch.descriptor();
    const auto after = [&](const char* what, bool isChange, const auto& happen) {
        SCOPED_TRACE(what);
        happen();
        pollfd events{descriptor, POLLIN, 0};
        EXPECT_TRUE(!isChange || ::poll(&events, 1, 0) == 1);
        EXPECT_EQ(watch.takeChange(), isChange);
        EXPECT_FALSE(watch.takeChange()) << "reported twice";
        EXPECT_EQ(::poll(&events, 1, 0), 0);
        EXPECT_EQ(watch.descriptor(), descriptor);
    };
    after("reading", false, [&] { EXPECT_NE(configuration(), ""); });
    after("another file", false, [&] { root.write("tmp/other", "a=2\n"); });
    after("another watch", false, [&] { EXPECT_TRUE(SystemCfgWatch().start() && watch.start()); });
    after("a rename over it", true, [&] { fs::rename(other, path); });
    after("the begin of writing in place", false, [&] {
        writer.open(path), writer << "a=4\n" << std::flush;
    });
    after("its end", true, [&] { writer.close(); });
    after("a rename away", true, [&] { fs::rename(path, other); });
    after("a hard link", true, [&] { fs::create_hard_link(other, path); });
    after("the only link by now", true,
          [&] { fs::remove(path), fs::create_hard_link(other, path), fs::remove(other); });
    after("there and back", true, [&] { fs::rename(path, other), fs::rename(other, path); });
    after("removal", true, [&] { fs::remove(path); });
    after("the begin of a new one", false, [&] { writer.open(path); });
    after("its end", true, [&] { writer.close(); });
    after("a link in its place", true,
          [&] { fs::create_symlink(root.write("target", "a=5\n"), other), fs::rename(other, path); });
    after("writing to its target", false, [&] { root.write("target", "a=6\n"); });
    after("the end of the link", true, [&] { fs::remove(path); });
    after("a link where nothing was", false, [&] { fs::create_symlink("target", path); });
    after("a file from elsewhere", true, [&] { fs::rename(root.write("new", "a=7\n"), path); });
    after("another directory", true,
          [&] { fs::rename(folder, away), root.write("tmp/system.cfg", "a=8\n"); });
    after("writing in the old one", false, [&] { root.write("away/system.cfg", "a=9\n"); });
    after("writing in the new one", true, [&] { configuration("a=10\n"); });
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
    fs::rename(path.parent_path(), root.path() / "away");
    EXPECT_TRUE(watch.takeChange());
    EXPECT_FALSE(watch.descriptor() != -1 || watch.takeChange() || watch.start());
    EXPECT_EQ(errno, ENOENT);
    configuration("a=3\n");
    EXPECT_TRUE(watch.start() && (configuration("a=4\n"), watch.takeChange()));
    fs::remove_all(path.parent_path());
    EXPECT_TRUE(watch.takeChange() && watch.descriptor() == -1);
}

TEST_F(SystemCfgTest, WatchKeepsAwayFromStandardStreamsAndOtherPrograms) {
    const auto open = test::openDescriptors();
    EXPECT_EQ(inAChild([&] {
                  for (const int stream : {0, 1, 2}) ::close(stream);
                  SystemCfgWatch watch;
                  const int descriptor = watch.start() ? watch.descriptor() : -1;
                  return descriptor > 2 && (::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0 &&
                         (::fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0 && ::fcntl(0, F_GETFD) == -1;
              }),
              0);
    EXPECT_TRUE(SystemCfgWatch().start());
    EXPECT_EQ(test::openDescriptors(), open);
}

}  // namespace
