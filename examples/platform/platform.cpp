// The smallest platform that the library runs on, written against the declarations of docs/porting.md alone. Not for a
// device: its lock excludes nobody, and it saves nothing to flash.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "korvo/logger/logger.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/flash.h"
#include "korvo/utils/host.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "korvo/variant/variant.h"

std::string deviceRoot;  // where the device's files are
int messages = 0;        // how many were logged

void logInternal(const char*, const char*, const char*, int, int, int, int, const char*, ...) { ++messages; }

struct InterProcessMutex::Content {};
InterProcessMutex::InterProcessMutex(const char*, bool) {}
InterProcessMutex::~InterProcessMutex() = default;
int InterProcessMutex::acquire() { return 0; }
int InterProcessMutex::release() { return 0; }
bool InterProcessMutex::acquired() const { return true; }
bool InterProcessMutex::held() const { return true; }

namespace korvo::utils {

void split(const std::string& text, const std::string& separator, std::vector<std::string>& pieces) {
    for (std::size_t begin = 0, end = 0; !text.empty() && end != std::string::npos; begin = end + 1)
        pieces.push_back(text.substr(begin, (end = text.find(separator, begin)) - begin));
}
void trim(std::string& text) {
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    text.erase(0, text.find_first_not_of(" \t\r\n"));
}
std::string lowerCase(const std::string& text) {
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    return lower;
}
std::string format(const char* format, ...) {
    std::va_list arguments, same;
    va_start(arguments, format);
    va_copy(same, arguments);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, same)), '\0');
    va_end(same);
    (void)std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    va_end(arguments);
    return text;
}
double toDouble(const char* text, const char** end) {
    char* last = nullptr;
    const double value = std::strtod(text, &last);
    if (end != nullptr) *end = last;
    return value;
}
std::string getHostByName(const std::string& name) { return name; }
std::string devicePath(const char* path) { return deviceRoot + path; }
std::string flashCopyPath() { return devicePath("/flash/system.cfg"); }
bool saveToFlashRaw(bool) { return true; }
bool loadFromFlashRaw(std::string&) {
    errno = ENOENT;
    return false;
}
bool loadFromFlashRaw(std::string& text, FileAccess&) { return loadFromFlashRaw(text); }
bool loadDamagedFlashCopy(std::string& text) { return loadFromFlashRaw(text); }
bool setFlashCopyAside() {
    errno = ENOENT;
    return false;
}
bool storeOwner(uid_t& owner, gid_t& group) {
    owner = group = 0;
    return true;
}

struct File::Content : std::fstream {};
File::File() : content(new Content) {}
File::~File() { delete content; }
bool File::Initialize(const std::string& path, FILE_OPEN_MODE mode) {
    content->open(path, mode == FILE_OPEN_MODE_TRUNCATE ? std::ios::out : std::ios::in);
    return content->is_open();
}
bool File::ReadStringAll(std::string& text) {
    std::ostringstream all;
    text = (all << content->rdbuf(), all.str());
    return content->good();
}
bool File::ReadStringAll(const std::string& path, std::string& text, FILE_OPEN_MODE mode,
                         FileAccess* access) {
    File file;
    if (access != nullptr) *access = file.Access();
    return file.Initialize(path, mode) && file.ReadStringAll(text);
}
bool File::WriteString(const std::string& text) { return (*content << text).good(); }
FileAccess File::Access() const { return {0, 0, 0600}; }
bool File::SetAccess(const FileAccess&) { return true; }
bool File::CopyAccess(const std::string&) { return true; }
bool File::Close() {
    content->close();
    return content->good();
}

}  // namespace korvo::utils

namespace korvo::variant {

struct Variant::Content {
    VariantType type = TypeNull;
    double number = 0;
    std::string text;
    std::map<std::string, Variant> named;
    std::map<long long, Variant> indexed;
};

Variant::Variant() : content(new Content) {}
Variant::Variant(const Variant& other) : content(new Content(*other.content)) {}
Variant::~Variant() { delete content; }
Variant& Variant::operator=(const Variant& other) {
    const Content copy = *other.content;
    *content = copy;
    return *this;
}

#define NUMBER(Number, tag)                            \
    Variant& Variant::operator=(Number value) {        \
        Reset();                                       \
        content->type = static_cast<VariantType>(tag); \
        content->number = static_cast<double>(value);  \
        return *this;                                  \
    }
NUMBER(bool, TypeBool)
NUMBER(signed char, 0x4110)
NUMBER(int, 0x4140)
NUMBER(unsigned int, 0x4240)
NUMBER(unsigned short, 0x4220)
NUMBER(long long, 0x4180)
NUMBER(unsigned long long, 0x4280)
NUMBER(double, TypeDouble)

Variant& Variant::operator=(const std::string& value) {
    const std::string copy = value;
    Reset();
    content->type = TypeString;
    content->text = copy;
    return *this;
}
Variant& Variant::operator=(const char* value) {
    if (value != nullptr) return *this = std::string(value);
    Reset();
    return *this;
}

Variant::operator VariantType() const { return content->type; }
Variant::operator bool() const { return content->number != 0; }
Variant::operator signed char() const { return static_cast<signed char>(content->number); }
Variant::operator int() const { return static_cast<int>(content->number); }
Variant::operator unsigned short() const { return static_cast<unsigned short>(content->number); }
Variant::operator long long() const { return static_cast<long long>(content->number); }
Variant::operator double() const { return content->number; }
Variant::operator const char*() const { return content->text.c_str(); }
Variant::operator const std::string&() const { return content->text; }

void Variant::Reset() { *content = Content(); }
void Variant::Free() { Reset(); }
void Variant::IsArray(bool array) {
    if (content->type != TypeMap && content->type != TypeArray) Reset();
    content->type = array ? TypeArray : TypeMap;
}
Variant& Variant::operator[](const char* key) { return (*this)[std::string(key)]; }
Variant& Variant::operator[](const std::string& key) {
    if (content->type != TypeMap && content->type != TypeArray) IsArray(false);
    return content->named[key];
}
Variant& Variant::operator[](long long index) {
    if (content->type != TypeMap && content->type != TypeArray) IsArray(true);
    auto& members = content->indexed;
    return members[index != -1 ? index : members.empty() ? 0 : members.rbegin()->first + 1];
}
Variant::num_iterator Variant::num_begin() { return content->indexed.begin(); }
Variant::num_iterator Variant::num_end() { return content->indexed.end(); }
Variant* Variant::GetKeyChain(VariantType filter, const char* path, bool) {
    std::vector<std::string> components;
    utils::split(path, "/", components);
    Variant* node = this;
    for (const std::string& component : components) {
        const std::string key = component[0] == '[' ? component.substr(1, component.size() - 2) : component;
        const auto named = node->content->named.find(key);
        const auto indexed = node->content->indexed.find(std::atoll(key.c_str()));
        if (key == component || indexed == node->content->indexed.end()) {
            if (named == node->content->named.end()) return nullptr;
            node = &named->second;
        } else {
            node = &indexed->second;
        }
    }
    return filter == TypeAny || (node->content->type & filter) == filter ? node : nullptr;
}
bool Variant::FromKVP(const std::string& text, bool, bool, bool) {
    IsArray(false);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> keys;
        utils::split(line.substr(0, line.find('=')), ".", keys);
        Variant* node = this;
        for (const std::string& key : keys) node = &(*node)[key];
        *node = line.substr(line.find('=') + 1);
    }
    return true;
}
bool Variant::ToKVP(std::string& text, const std::string& equals, const std::string& lineEnd) const {
    text.clear();
    for (const auto& [key, member] : content->named) {
        std::string below;
        if (member.content->type != TypeMap) {
            text += key + equals + member.content->text + lineEnd;
        } else if (member.ToKVP(below, equals, lineEnd)) {
            std::istringstream lines(below);
            for (std::string line; std::getline(lines, line);) text += key + "." + line + lineEnd;
        }
    }
    return true;
}
void Variant::Compact() {}

}  // namespace korvo::variant
