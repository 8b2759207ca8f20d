// Breaks every call that the configuration store makes on files of the device: it fails in each plausible way,
// or is the last one of a killed process. Cuts the power after each call of a save.

#include "support/broken_calls.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "korvo/logger/logger.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/variant_utils/system_cfg.h"
#include "support/child_process.h"
#include "support/device.h"

namespace {

namespace fs = std::filesystem;
using test::Call;
using test::CutShort;
using test::KilledAfter;
using test::NoFault;
using test::watch;
using testing::Contains;

/** What can go wrong with a call. Besides, the process can be killed after each. */
std::vector<int> faultsOf(const Call& call) {
    static const std::map<std::string, std::vector<int>> plausible = {
        {"open", {EACCES, EPERM, ELOOP, EMFILE, ENFILE, ENOMEM, EIO, EINTR}},
        {"create", {EACCES, EMFILE, ENOMEM, EIO, ENOSPC, EROFS, EINTR}},
        {"read", {EIO, EINTR, CutShort}},
        {"write", {ENOSPC, EDQUOT, EIO, EINTR, CutShort}},
        {"close", {EIO, EINTR}},
        {"fsync", {EIO, ENOSPC, EINTR}},
        {"fcntl", {ENOLCK, EINTR}},
        {"fcntl, waiting", {ENOLCK, EINTR, EDEADLK}},
        {"stat", {EACCES, ENOMEM, EIO}},
        {"fstat", {ENOMEM, EIO}},
    };
    const auto found = plausible.find(call.name);
    return found != plausible.end() ? found->second : std::vector<int>{EACCES, EPERM, ENOSPC, EROFS, EIO};
}

const std::set<int> harmless = {NoFault, EINTR, EDEADLK, CutShort};
const std::set<int> mayPass = {EACCES, EPERM, EMFILE, ENFILE, ENOMEM};  // of a failure to open the flash copy

/** What is on a device, by path; a directory has the content "/". */
using Tree = std::map<std::string, std::string>;

const std::string working = "/tmp/system.cfg", flash = KORVO_FLASH_DIR, copy = flash + "/system.cfg";
const std::string none = "no file";

/** The text of a configuration. */
std::string text(int cycles, int bitrate) {
    return "system.flash.cycles=" + std::to_string(cycles) + "\nvideo.bitrate=" + std::to_string(bitrate) +
           '\n';
}

const std::string current = text(43, 1024), saved = text(41, 512), factory = text(1, 256),
                  torn = saved + "torn";

std::string parentOf(const std::string& path) { return fs::path(path).parent_path(); }

std::string at(const Tree& tree, const std::string& path) {
    const auto found = tree.find(path);
    return found != tree.end() ? found->second : none;
}

/** The settings that are in flash: the copy, or else what was set aside. */
std::string kept(const Tree& tree) {
    for (std::string above = flash; above != "/"; above = parentOf(above)) {
        if (at(tree, above) == none) return none;
    }
    return at(tree, copy) != none ? at(tree, copy) : at(tree, copy + ".damaged");
}

/** What of a device lasts over a power cut: what is synced, and any part of the rest. */
struct Disk {
    Tree seen;                      ///< by processes
    std::string ignored;            ///< syncs that do nothing: of "files", their "directory" or its "parents"
    std::set<Tree> possible{seen};  ///< one of these is found after the power cut

    void play(const Call& call) {
        const std::string name = call.name, path = call.path, data = call.data;
        if (call.failed || parentOf(path) == "/tmp") return;
        if (name == "fsync") return sync(path);
        if (name == "sync") possible = {seen};
        std::vector<std::string> contents;
        if (name == "create") contents = {""};
        if (name == "mkdir") contents = {"/"};
        // A part may arrive, zeros in its place, or all.
        if (name == "write")
            contents = {data.substr(0, data.size() / 2), std::string(data.size(), '\0'), data};
        if (name == "rename" || name == "unlink") contents = {none};
        for (const std::string& content : contents) {
            const auto change = [&](Tree tree) {
                if (name == "rename") tree[data] = at(tree, path);
                tree[path] = (name == "write" && at(tree, path) != none ? at(tree, path) : "") + content;
                return tree;
            };
            for (const Tree& tree : std::set(possible)) possible.insert(change(tree));
            if (content == contents.back()) seen = change(seen);
        }
    }

    void sync(const std::string& path) {
        if (ignored == (path == flash ? "directory" : parentOf(path) == flash ? "files" : "parents")) return;
        std::set<Tree> synced;
        for (Tree tree : possible) {
            for (const auto& [name, content] : seen) {
                if (name == path || parentOf(name) == path) tree[name] = content;
            }
            synced.insert(tree);
        }
        possible = synced;
    }

    /** Whether settings are kept that are legal, whenever the power is cut. */
    bool keeps(const std::set<std::string>& legal) const {
        return std::all_of(possible.begin(), possible.end(),
                           [&](const Tree& tree) { return legal.count(kept(tree)) != 0; });
    }
};

// Uses of the store

bool change() {
    SystemCfgManager store;
    return store.init() && store.set("video.bitrate", 2048, nullptr) && store.close(false, false);
}
bool save(const char* bitrate) {
    SystemCfgManager store;
    return store.init() && store.apply({{"video.bitrate", bitrate}}, nullptr) && store.close(true, false);
}
bool saveOnce() { return save("2048"); }
bool saveAgain() { return save("4096"); }
bool restore() { return SystemCfgManager::restore(korvo::utils::devicePath("/factory"), false); }
bool replace() { return SystemCfgManager::restore(korvo::utils::devicePath("/factory"), true); }
bool reset() { return SystemCfgManager::reset(korvo::utils::devicePath("/factory")); }

// A count that cannot be read is lost.
const struct Use {
    const char* name;
    bool (*run)();
    std::string before, copyBefore;    ///< the configuration; the flash copy, in its place or set aside
    std::string after, copyAfter;      ///< the same without a fault
    std::vector<std::string> between;  ///< what else the configuration may be with one
} uses[] = {
    {"change", change, current, saved, text(43, 2048), saved, {}},
    {"save", saveOnce, current, saved, text(44, 2048), text(44, 2048), {text(43, 2048)}},
    {"first save", saveOnce, current, none, text(44, 2048), text(44, 2048), {text(43, 2048)}},
    {"restore", restore, none, saved, saved, saved, {factory, text(41, 256)}},
    {"first restore", restore, none, none, factory, none, {}},
    {"restore of a torn copy", restore, none, torn, text(41, 256), torn, {factory}},
    {"needless restore", restore, current, saved, current, saved, {}},
    {"replace", replace, current, saved, text(43, 512), saved, {saved, text(43, 256)}},
    {"reset", reset, current, saved, text(43, 256), saved, {text(41, 256)}},
};

/** A device with the flash copy, if there is one. */
Tree treeBefore(const Use& use) {
    Tree tree;
    for (std::string name = copy; name != "/" && use.copyBefore != none; name = parentOf(name))
        tree[name] = name == copy ? use.copyBefore : "/";
    return tree;
}

class BrokenCalls : public testing::Test {
  protected:
    /** Makes the devices in memory, since there are thousands. */
    static void SetUpTestSuite() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
        if (fs::is_directory("/dev/shm")) (void)::setenv("TMPDIR", "/dev/shm", 0);
    }

    const test::Device device;

    std::string path(const std::string& onDevice) const { return device.path().string() + onDevice; }
    std::string content(const std::string& file) const {
        return fs::exists(path(file)) ? device.read(file.substr(1)) : none;
    }

    /** Makes a device of a tree and the configuration. */
    void prepare(Tree tree, const std::string& configuration) const {
        for (const auto& entry : fs::directory_iterator(device.path())) fs::remove_all(entry);
        tree["/tmp"] = "/";
        tree["/factory"] = factory;
        tree[working] = configuration;
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

    /** Runs a use in a watched process of its own; 0 if done, 1 if failed, or minus the signal that ended it. */
    int run(bool (*use)(), int fault = NoFault, std::size_t brokenCall = 0, bool lasting = false) const {
        watch.fault = fault;
        watch.brokenCall = brokenCall;
        watch.lasting = lasting;
        watch.count = 0;
        watch.messages = {};
        test::ChildProcess process([use](const test::ChildProcess&) {
            korvo::logger::setSink([](const korvo::logger::Record& line) {
                ++watch.messages.at(static_cast<std::size_t>(line.level));
            });
            test::isWatched = true;
            const bool done = use();
            test::isWatched = false;
            const bool isFree = InterProcessMutex("system.cfg", true).acquire() == 0;
            return isFree ? (done ? 0 : 1) : 2;
        });
        return process.exitStatus();
    }

    /** The calls of the last process that was watched. */
    static std::vector<Call> calls() {
        return {watch.calls.begin(), watch.calls.begin() + static_cast<std::ptrdiff_t>(watch.count)};
    }

    /** Cuts the power after each call of the last use; whether the flash has what it had or was to get. */
    bool survivesPowerCuts(Disk& disk, const Use& use, bool done) {
        bool survives = true;
        for (const Call& call : calls()) {
            disk.play(call);
            survives = survives && disk.keeps({use.copyBefore, use.copyAfter});
            for (const Tree& tree : disk.possible)
                left.insert(Tree{{copy, kept(tree)}, {copy + ".tmp", at(tree, copy + ".tmp")}});
        }
        return survives && (!done || disk.keeps({use.copyAfter}));
    }

    /** Another process can use the store. */
    void checkNextUse() const {
        EXPECT_EQ(run([] { return restore() && saveAgain(); }), 0);
        EXPECT_THAT(content(working), testing::EndsWith("\nvideo.bitrate=4096\n"));
        EXPECT_EQ(content(working), content(copy));
    }

    void check(const Use& use, const Call& call, int fault, std::size_t number, bool lasting);

    std::set<Tree> left;  ///< by power cuts
};

/** Runs a use with a call that is broken, once or from then on. */
void BrokenCalls::check(const Use& use, const Call& call, int fault, std::size_t number, bool lasting) {
    SCOPED_TRACE(testing::Message() << use.name << ", call " << number << ", " << call.name << ' '
                                    << call.path << ", fault " << fault << (lasting ? ", for long" : ""));
    Disk disk{treeBefore(use), ""};
    prepare(disk.seen, use.before);
    const int outcome = run(use.run, fault, number, lasting);
    const bool done = outcome == 0, isKilled = outcome == -SIGKILL;
    ASSERT_GT(watch.count, number) << "there was no such call";
    ASSERT_EQ(isKilled, fault == KilledAfter);
    ASSERT_TRUE(done || outcome == 1 || isKilled) << outcome;
    // The files are whole; what the user had set is in flash, in place or set aside.
    const std::string found = content(working), inFlash = content(copy);
    std::vector<std::string> possible = use.between;
    possible.insert(possible.end(), {use.before, use.after});
    EXPECT_THAT(possible, Contains(found));
    EXPECT_THAT((std::set{use.copyAfter, done ? use.copyAfter : use.copyBefore}),
                Contains(inFlash != none ? inFlash : content(copy + ".damaged")));
    EXPECT_TRUE(survivesPowerCuts(disk, use, done));
    EXPECT_EQ(at(disk.seen, copy), inFlash) << "a call was overlooked";
    EXPECT_TRUE(use.before == none || fs::status(path(working)).permissions() == fs::perms(0644));
    // A failure is reported, and so is a success other than without a fault.
    const bool isWarned = watch.messages[korvo::logger::LevelWarning] != 0;
    EXPECT_TRUE(isKilled || done == (watch.messages[korvo::logger::LevelError] == 0));
    EXPECT_TRUE(!done || isWarned ||
                found.substr(found.find('\n')) == use.after.substr(use.after.find('\n')));
    if (harmless.count(fault) != 0) {
        EXPECT_EQ(std::tuple(done, isWarned, found), std::tuple(true, use.copyBefore == torn, use.after));
    }
    // Without a flash copy that is there there are only the factory settings to take.
    if (lasting && call.name == std::string("open") && call.path == copy && use.copyBefore != none) {
        EXPECT_EQ(done, mayPass.count(fault) == 0);
    }
    for (const auto& entry : fs::recursive_directory_iterator(device.path())) {
        const std::string name = isKilled || lasting ? "" : entry.path().filename();
        EXPECT_THAT(name, testing::Not(testing::MatchesRegex("system.cfg.(tmp|[0-9]+)"))) << "is left";
    }
    if (done) return;
    checkNextUse();
    for (const Call& later : calls()) disk.play(later);
    EXPECT_TRUE(disk.keeps({content(copy)})) << "what is saved then may be lost";
}

TEST_F(BrokenCalls, LeaveTheOldOrTheNewAndAFreeLockAndAreReported) {
    std::set<std::string> seen;
    for (const Use& use : uses) {
        check(use, {}, NoFault, 0, false);
        const std::vector<Call> all = calls();
        for (std::size_t i = 0; i < all.size(); ++i) {
            seen.insert(all[i].name);
            std::vector<int> faults = faultsOf(all[i]);
#ifdef ONE_FAULT_PER_CALL
            faults.resize(1);
#endif
            faults.push_back(KilledAfter);
            for (const int fault : faults) {
                check(use, all[i], fault, i, false);
                // A restore must not take a fault that lasts, but for the lock's, for a reason to lose settings.
                const bool mayLast = fault > 0 && harmless.count(fault) == 0 && use.before == none;
                if (mayLast && fs::path(all[i].path).extension() != ".lock")
                    check(use, all[i], fault, i, true);
            }
        }
    }
    for (const char* name :
         {"open", "create", "read", "write", "close", "fsync", "fcntl, waiting", "fstat", "rename", "mkdir"})
        EXPECT_THAT(seen, Contains(name)) << "this program is no longer in front of it";
    for (const Tree& tree : left) {
        SCOPED_TRACE(testing::PrintToString(tree));
        prepare(tree, none);
        const std::string found = content(copy);
        EXPECT_EQ(run(restore), 0);
        EXPECT_THAT(content(working), testing::EndsWith(found == none || found == torn ? "=256\n" : found));
        checkNextUse();
    }
}

TEST_F(BrokenCalls, LackOfASyncWouldBeSeen) {
    for (const char* ignored : {"files", "directory", "parents"}) {
        prepare({}, current);
        EXPECT_EQ(run(saveOnce), 0);
        Disk disk{{}, ignored};
        EXPECT_FALSE(survivesPowerCuts(disk, uses[2], true)) << ignored;
    }
}

}  // namespace
