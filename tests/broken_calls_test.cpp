// Breaks every call that the configuration store makes on files of the device: it fails in each plausible way,
// or is the last one of a killed process. Cuts the power after each call of a save.

#include "support/broken_calls.h"

#include <gmock/gmock.h>

#include <cctype>
#include <functional>
#include <map>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "korvo/logger/logger.h"
#include "korvo/variant_utils/system_cfg.h"
#include "support/child_process.h"
#include "support/device.h"

namespace {

namespace fs = std::filesystem;
using test::Call;
using test::CutShort;
using test::KilledAfter;
using test::NoFault;
using testing::Contains;

/** What can go wrong with a call. Besides, the process can be killed after each. */
std::vector<int> faultsOf(const Call& call) {
    static const std::map<std::string, std::vector<int>> plausible = {
        {"open", {EACCES, EPERM, ELOOP, EMFILE, ENFILE, ENOMEM, EIO, ENOSPC, EROFS, EINTR}},
        {"read", {EIO, EINTR, CutShort}},
        {"write", {ENOSPC, EDQUOT, EIO, EINTR, CutShort}},
        {"close", {EIO, EINTR}},
        {"fsync", {EIO, ENOSPC, EINTR}},
        {"fcntl", {ENOLCK, EINTR}},
        {"fcntl, waiting", {ENOLCK, EINTR, EDEADLK}},
        {"stat", {EACCES, ENOMEM, EIO}},
        {"fstat", {ENOMEM, EIO}},
        {"sync", {}},
    };
    const auto found = plausible.find(call.name);
    return found != plausible.end() ? found->second : std::vector<int>{EACCES, EPERM, ENOSPC, EROFS, EIO};
}

const std::set<int> mayPass = {EACCES, EPERM, EMFILE, ENFILE, ENOMEM};  // of a failure to open the flash copy

/** Faults that nobody must notice. */
bool isHarmless(int fault) {
    return fault == NoFault || fault == EINTR || fault == EDEADLK || fault == CutShort;
}

std::string describe(const std::string& use, int fault, std::size_t number, const Call& call) {
    const std::string name = fault == KilledAfter ? "killed after it"
                             : fault == CutShort  ? "cut short"
                                                  : std::generic_category().message(fault);
    return use + ", call " + std::to_string(number) + ", " + call.name + ' ' + call.path + ": " + name;
}

// Devices

/** What is on a device, by path; a directory has the content "/". */
using Tree = std::map<std::string, std::string>;

const std::string working = "/tmp/system.cfg", flash = KORVO_FLASH_DIR, copy = flash + "/system.cfg";
const std::string none = "no file", leftOver = "left by a power cut";

/** The text of a configuration. */
std::string text(int cycles, int bitrate) {
    return "system.flash.cycles=" + std::to_string(cycles) + "\nvideo.bitrate=" + std::to_string(bitrate) +
           '\n';
}
/** Without the count. */
std::string settings(const std::string& text) { return text.substr(text.find('\n') + 1); }

const std::string current = text(43, 1024), saved = text(41, 512), factory = text(1, 256),
                  torn = saved + "torn";

std::string parentOf(const std::string& path) { return fs::path(path).parent_path(); }
bool isInMemory(const std::string& path) { return path.compare(0, 5, "/tmp/") == 0; }

// Uses of the store

enum Outcome { Done, Failed, WrongLock };

/** Whether the lock is held, as a process sees it that has opened its file anew. */
bool isLocked() {
    constexpr int askForAnyHolder = 36;  // F_OFD_GETLK, which not every C library names
    struct flock request {};
    request.l_type = F_WRLCK;
    const int file = ::open(korvo::utils::devicePath("/tmp/system.cfg.lock").c_str(), O_RDWR | O_CLOEXEC);
    return file >= 0 && (::fcntl(file, askForAnyHolder, &request) != 0 || request.l_type != F_UNLCK);
}

/** Opens the store, which locks it. A manager that fails to do so must not keep the lock until it dies. */
bool opens(SystemCfgManager& store) {
    const bool open = store.init();
    test::Watch* const watch = std::exchange(test::watch, nullptr);
    if (isLocked() != open) ::_exit(WrongLock);
    test::watch = watch;
    return open;
}

bool change() {
    SystemCfgManager store;
    return opens(store) && store.set("video.bitrate", 2048, nullptr) && store.close(false, false);
}

bool save(int bitrate) {
    SystemCfgManager store;
    const std::string value = std::to_string(bitrate);
    return opens(store) && store.apply({{"video.bitrate", value}}, nullptr) && store.close(true, false);
}

const auto saveOnce = [] { return save(2048); };
const auto restore = [] { return SystemCfgManager::restore(korvo::utils::devicePath("/factory"), false); };
const auto replace = [] { return SystemCfgManager::restore(korvo::utils::devicePath("/factory"), true); };
const auto reset = [] { return SystemCfgManager::reset(korvo::utils::devicePath("/factory")); };

struct Use {
    const char* name;
    std::function<bool()> run;
    std::string before, copyBefore;    ///< the configuration and the flash copy
    std::string after, copyAfter;      ///< the same without a fault
    std::vector<std::string> between;  ///< what else the configuration may be with one
};

// A count that cannot be read is lost.
const Use uses[] = {
    {"change", change, current, saved, text(43, 2048), saved, {}},
    {"save", saveOnce, current, saved, text(44, 2048), text(44, 2048), {text(43, 2048)}},
    {"first save", saveOnce, current, none, text(44, 2048), text(44, 2048), {text(43, 2048)}},
    {"restore", restore, none, saved, saved, saved, {factory, text(41, 256)}},
    {"first restore", restore, none, none, factory, none, {}},
    {"restore of a torn copy", restore, none, torn, text(41, 256), none, {factory}},
    {"needless restore", restore, current, saved, current, saved, {}},
    {"replace", replace, current, saved, text(43, 512), saved, {saved, text(43, 256)}},
    {"reset", reset, current, saved, text(43, 256), saved, {text(41, 256)}},
};

class BrokenCalls : public testing::Test {
  protected:
    /** Makes the devices in memory, since there are thousands. */
    static void SetUpTestSuite() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
        if (fs::is_directory("/dev/shm")) (void)::setenv("TMPDIR", "/dev/shm", 0);
    }

    test::Device device;
    test::Watch& watch = test::Watch::shared();

    std::string path(const std::string& onDevice) const { return device.path().string() + onDevice; }
    std::string content(const std::string& file) const {
        return fs::exists(path(file)) ? device.read(file.substr(1)) : none;
    }

    /** Makes a device of a tree and the configuration. */
    void prepare(Tree tree, const std::string& configuration) const {
        for (const auto& entry : fs::directory_iterator(device.path())) fs::remove_all(entry);
        tree[working] = configuration;
        tree["/tmp"] = "/";
        tree["/factory"] = factory;
        for (const auto& [name, content] : tree) {
            if (content == "/") fs::create_directories(path(name));
            if (content == "/" || content == none) continue;
            fs::permissions(device.write(name.substr(1), content), fs::perms(0644));
        }
        // Only root can keep another user's file his.
        if (::geteuid() != 0) return;
        for (const std::string& name : {working, flash})
            (void)!::chown(path(name).c_str(), test::otherUser, 0);
    }

    /** Runs a use in a watched process of its own; its Outcome, or minus the signal that ended it. */
    int run(const std::function<bool()>& use, int fault = NoFault, std::size_t brokenCall = 0,
            bool lasting = false) {
        watch.brokenCall = brokenCall;
        watch.lasting = lasting;
        watch.fault = fault;
        watch.count = 0;
        watch.messages = {};
        test::ChildProcess process([&](const test::ChildProcess&) {
            korvo::logger::setSink([](const korvo::logger::Record& line) {
                ++test::watch->messages.at(static_cast<std::size_t>(line.level));
            });
            test::watch = &watch;
            const bool done = use();
            test::watch = nullptr;
            return isLocked() ? WrongLock : done ? Done : Failed;
        });
        return process.exitStatus();
    }

    /** The calls of the last process that was watched. */
    std::vector<Call> calls() const {
        return {watch.calls.begin(), watch.calls.begin() + static_cast<std::ptrdiff_t>(watch.count)};
    }

    void checkFiles(const Use& use, int outcome, bool lasting) const;
    void checkReport(const Use& use, int outcome, int fault, int usualWarnings) const;
    void checkNextUse() const;
    void check(const Use& use, const Call& call, int fault, std::size_t number, int usualWarnings,
               bool lasting);

    static Tree treeOf(const Use& use) {
        return {{copy, use.copyBefore}, {copy + ".tmp", use.copyBefore == none ? none : leftOver}};
    }
};

/** The files are whole, and what the outcome says; what the user had set is in flash, in place or set aside. */
void BrokenCalls::checkFiles(const Use& use, int outcome, bool lasting) const {
    const bool killed = outcome == -SIGKILL, isAside = content(copy + ".damaged") == use.copyBefore;
    std::set<std::string> possible = {use.before, use.after}, possibleCopies = {use.copyAfter};
    possible.insert(use.between.begin(), use.between.end());
    const bool isWarned = watch.messages[korvo::logger::LevelWarning] > 0;
    if (outcome != Done || isWarned) possibleCopies.insert(use.copyBefore);
    EXPECT_THAT(possible, Contains(content(working)));
    EXPECT_TRUE(isAside || possibleCopies.count(content(copy)) != 0) << content(copy);
    EXPECT_TRUE(isAside || use.copyBefore == none || content(copy) != none) << "the user's settings are lost";
    EXPECT_TRUE(use.before == none || fs::status(path(working)).permissions() == fs::perms(0644));
    if (killed || lasting) return;
    for (const auto& entry : fs::recursive_directory_iterator(device.path())) {
        const std::string name = entry.path().filename();
        const bool isTemporary = std::isdigit(name.back()) != 0 || entry.path().extension() == ".tmp";
        const bool wasThere = name == "system.cfg.tmp" && content(copy + ".tmp") == leftOver;
        EXPECT_TRUE(!isTemporary || wasThere) << name << " is left";
    }
}

/** A failure is reported, and so is a success other than without a fault. */
void BrokenCalls::checkReport(const Use& use, int outcome, int fault, int usualWarnings) const {
    const int errors = watch.messages[korvo::logger::LevelError];
    const int warnings = watch.messages[korvo::logger::LevelWarning];
    EXPECT_NE(outcome, WrongLock);
    EXPECT_EQ(outcome == Done, errors == 0) << errors << " messages";
    EXPECT_TRUE(outcome != Done || warnings > 0 || settings(content(working)) == settings(use.after));
    if (!isHarmless(fault)) return;
    EXPECT_EQ(outcome, Done);
    EXPECT_EQ(content(working), use.after);
    EXPECT_EQ(warnings, usualWarnings);
}

/** Another process can use the store. */
void BrokenCalls::checkNextUse() const {
    test::ChildProcess next([](const test::ChildProcess&) {
        korvo::logger::setSink([](const korvo::logger::Record&) {});
        return restore() && save(4096) ? Done : Failed;
    });
    EXPECT_EQ(next.exitStatus(), Done);
    EXPECT_EQ(settings(content(working)), "video.bitrate=4096\n");
    EXPECT_EQ(content(working), content(copy));
}

/** Runs a use with a call that is broken, once or from then on. */
void BrokenCalls::check(const Use& use, const Call& call, int fault, std::size_t number, int usualWarnings,
                        bool lasting) {
    SCOPED_TRACE(describe(use.name, fault, number, call) + (lasting ? ", for long" : ""));
    prepare(treeOf(use), use.before);
    const int outcome = run(use.run, fault, number, lasting);
    ASSERT_GT(watch.count, number) << "there was no such call";
    ASSERT_EQ(outcome == -SIGKILL, fault == KilledAfter) << outcome;
    if (fault != KilledAfter) checkReport(use, outcome, fault, usualWarnings);
    checkFiles(use, outcome, lasting);
    if (outcome != Done) checkNextUse();
    const bool needsCopy =
        lasting && use.copyBefore != none && call.path == copy && call.name == std::string("open");
    EXPECT_TRUE(!needsCopy || (outcome == Failed) == (mayPass.count(fault) != 0));
}

TEST_F(BrokenCalls, LeaveTheOldOrTheNewAndAFreeLockAndAreReported) {
    std::set<std::string> seen;
    for (const Use& use : uses) {
        prepare(treeOf(use), use.before);
        const int unharmed = run(use.run), usualWarnings = watch.messages[korvo::logger::LevelWarning];
        checkReport(use, unharmed, NoFault, usualWarnings);
        checkFiles(use, unharmed, false);
        const std::vector<Call> all = calls();
        for (std::size_t i = 0; i < all.size(); ++i) {
            seen.insert(all[i].name);
            std::vector<int> faults = faultsOf(all[i]);
#ifdef ONE_FAULT_PER_CALL
            faults.resize(std::min<std::size_t>(faults.size(), 1));
#endif
            faults.push_back(KilledAfter);
            for (const int fault : faults) check(use, all[i], fault, i, usualWarnings, false);
            // A restore must not take a fault that lasts, but for the lock's, for a reason to lose settings.
            if (use.before != none || fs::path(all[i].path).extension() == ".lock") continue;
            for (const int fault : faults) {
                if (fault > 0 && !isHarmless(fault)) check(use, all[i], fault, i, usualWarnings, true);
            }
        }
    }
    for (const char* name :
         {"open", "read", "write", "close", "fsync", "fcntl, waiting", "fstat", "rename", "mkdir"})
        EXPECT_THAT(seen, Contains(name)) << "this program is no longer in front of it";
}

// Power cuts

/** What of a device lasts over a power cut: what is synced, and any part of the rest. */
class Disk {
  public:
    /** One that ignores the syncs of the "file", of its "folder" or of the "parents", or none. */
    Disk(const Tree& start, std::string without) : ignored(std::move(without)) {
        for (const auto& [path, content] : start) {
            for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
                names[path.substr(0, end)] = {"/", {"/"}, {}};
            names[path] = {content, {content}, {}};
        }
    }

    void play(const Call& call) {
        const std::string name = call.name;
        Name& file = names[call.path];
        if (call.result < 0) return;
        if (name == "open" && (call.flags & O_CREAT) != 0 && file.seen == none) file.become({"", {""}, {}});
        if (name == "open" && (call.flags & O_TRUNC) != 0) file.possible.insert(file.seen = "");
        if (name == "write") file.append({call.data, static_cast<std::size_t>(call.result)});
        if (name == "mkdir") file.become({"/", {"/"}, {}});
        if (name == "rename") names[call.data].become(file);
        if (name == "rename" || name == "unlink" || name == "rmdir") file.become({});
        if (name == "fsync" && call.path != std::string("/") && file.seen != "/" && ignored != "file")
            file.possible = {file.seen};
        for (auto& [path, child] : names) {
            const bool isSynced = name == "fsync" && parentOf(path) == call.path &&
                                  ignored != (flash == call.path ? "folder" : "parents");
            if (isSynced || name == "sync") child.before.clear();
            if (name == "sync") child.possible = {child.seen};
        }
    }

    /** What processes see. */
    std::string content(const std::string& path) const {
        return names.count(path) != 0 ? names.at(path).seen : none;
    }

    /** Every tree that a power cut may leave. */
    std::set<Tree> afterPowerCut() const {
        std::set<Tree> trees = {Tree()};
        for (const auto& [path, name] : names) {
            std::set<std::string> contents = name.before;
            contents.insert(name.possible.begin(), name.possible.end());
            for (const Tree& tree : std::exchange(trees, {})) {
                const bool hasParent = parentOf(path) == "/" || tree.count(parentOf(path)) != 0;
                for (const std::string& content : hasParent ? contents : std::set{none}) {
                    Tree longer = tree;
                    if (content != none) longer[path] = content;
                    trees.insert(longer);
                }
            }
        }
        return trees;
    }

    const std::string ignored;

  private:
    /** What has a name. */
    struct Name {
        std::string seen = none;                  ///< by processes
        std::set<std::string> possible = {none};  ///< the content may be found so
        std::set<std::string> before;             ///< or, until the directory is synced, what had the name

        void become(const Name& other) {
            before.insert(possible.begin(), possible.end());
            seen = other.seen;
            possible = other.possible;
        }
        /** Of what is written nothing may arrive, a part, zeros in its place, or all. */
        void append(const std::string& data) {
            for (const std::string& old : std::set<std::string>(possible)) {
                for (const std::string& part :
                     {data.substr(0, data.size() / 2), std::string(data.size(), '\0'), data})
                    possible.insert(old + part);
            }
            seen += data;
        }
    };

    std::map<std::string, Name> names;
};

class PowerCut : public BrokenCalls {
  protected:
    std::map<std::string, int> illegal;  ///< so many copies that may not be found, by the ignored syncs
    std::set<Tree> left;                 ///< what power cuts leave

    void judge(const Disk& disk, const std::set<std::string>& legal) {
        for (const Tree& tree : disk.afterPowerCut()) {
            const auto found = tree.find(copy);
            if (legal.count(found != tree.end() ? found->second : none) == 0) ++illegal[disk.ignored];
            if (disk.ignored.empty()) left.insert(tree);
        }
    }

    /** Cuts the power after each call of a save, which may be broken, and of one more. */
    void saveTwice(const Tree& start, int fault, std::size_t brokenCall) {
        prepare(start, current);
        std::vector<Disk> disks = {Disk(start, "")};
        for (const char* ignored : {"file", "folder", "parents"}) {
            if (fault == NoFault) disks.emplace_back(start, ignored);
        }
        std::set<std::string> legal = {content(copy)};
        for (const bool first : {true, false}) {
            const int outcome =
                run([&] { return save(first ? 2048 : 4096); }, first ? fault : NoFault, brokenCall);
            EXPECT_TRUE(outcome == Done || (first && fault != NoFault)) << outcome;
            legal.insert(content(working));
            for (const Call& call : calls()) {
                if (isInMemory(call.path)) continue;
                for (Disk& disk : disks) {
                    disk.play(call);
                    judge(disk, legal);
                }
            }
            if (outcome == Done) legal = {content(working)};
            for (const Disk& disk : disks) judge(disk, legal);
            EXPECT_EQ(disks[0].content(copy), content(copy)) << "a call was overlooked";
            EXPECT_EQ(illegal[""], 0);
        }
    }
};

TEST_F(PowerCut, LeavesTheOldCopyOrTheNewOneAndOnlyThatAfterASave) {
    for (const Tree& start : {Tree{},
                              {{parentOf(flash), "/"}},
                              {{flash, "/"}},
                              {{copy, saved}},
                              {{copy, saved}, {copy + ".tmp", leftOver}}}) {
        saveTwice(start, NoFault, 0);
        prepare(start, current);
        EXPECT_EQ(run(saveOnce), Done);
        const std::vector<Call> all = calls();
        for (std::size_t i = 0; i < all.size(); ++i) {
            for (const int fault : {EIO, int{KilledAfter}}) {
                SCOPED_TRACE(describe(testing::PrintToString(start), fault, i, all[i]));
                if (!isInMemory(all[i].path)) saveTwice(start, fault, i);
            }
        }
    }
    for (const char* ignored : {"file", "folder", "parents"})
        EXPECT_GT(illegal[ignored], 0) << "the lack of these syncs is overlooked: " << ignored;
    for (const Tree& tree : left) {
        SCOPED_TRACE(testing::PrintToString(tree));
        prepare(tree, none);
        const std::string found = content(copy);
        EXPECT_EQ(run(restore), Done);
        EXPECT_EQ(content(working), found == none ? factory : found);
        EXPECT_EQ(content(copy), found);
        checkNextUse();
    }
}

}  // namespace
