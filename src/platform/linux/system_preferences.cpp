#include "platform/linux/system_preferences_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "platform/file_write.h"
#include "platform/path.h"
#include "platform/property_list.h"
#include "platform/service.h"
#include "platform/unique_fd.h"

namespace qvk::platform {

namespace {

constexpr const char* kSystemPreferencesPath = "/Library/Preferences/SystemConfiguration/preferences.plist";

// A regular file opened for reading; a symbolic link, a FIFO or a device is refused. Non-blocking
// open so that a FIFO put in the file's place can't hang the caller.
UniqueFd OpenRegular(const std::string& path, int flags, mode_t mode = 0) {
    UniqueFd fd(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
    struct stat st {};
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return UniqueFd();
    return fd;
}

bool ReadAll(int fd, std::string& out) {
    char buffer[8192];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        out.append(buffer, static_cast<std::size_t>(n));
    }
}

// The folder that holds `path`, and the name in it.
std::pair<std::string, std::string> SplitPath(const std::string& path) {
    std::string folder = ParentFolder(path);
    return {folder.empty() ? "." : folder, path.substr(path.rfind('/') + 1)};
}

// The components of "/A/B/C"; none for a path that does not start at the root. Empty components
// ("//", a trailing "/") are skipped.
std::optional<std::vector<std::string>> PathComponents(const std::string& path) {
    if (path.empty() || path[0] != '/') return std::nullopt;
    std::vector<std::string> components;
    std::size_t start = 1;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) components.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return components;
}

// What one reading of the file found.
struct Contents {
    std::string bytes;
    Dictionary root;
    struct stat status {};
};

std::optional<Contents> ReadContents(const std::string& path) {
    UniqueFd fd = OpenRegular(path, O_RDONLY);
    Contents contents;
    if (fd.get() < 0 || fstat(fd.get(), &contents.status) != 0 || !ReadAll(fd.get(), contents.bytes))
        return std::nullopt;
    std::optional<Value> root = ParsePropertyList(contents.bytes);
    if (!root || !root->AsDictionary()) return std::nullopt;
    contents.root = std::move(*root->AsDictionary());
    return contents;
}

class FilePreferences final : public SystemPreferences {
public:
    FilePreferences(std::string path, Contents contents) : path_(std::move(path)), contents_(std::move(contents)) {}

    // The lock is a separate file beside the preferences, never the preferences file itself: a
    // commit renames a new file into place, so a writer waiting on the old file's lock would get
    // it on a file no longer in use and work beside the next writer. The lock file is never
    // removed either, for the same reason.
    bool Lock(bool wait) override {
        if (lock_.get() >= 0) return false;
        UniqueFd fd = OpenRegular(path_ + "-lock", O_RDWR | O_CREAT, 0644);
        if (fd.get() < 0) return false;
        int result;
        do {
            result = flock(fd.get(), LOCK_EX | (wait ? 0 : LOCK_NB));
        } while (result != 0 && errno == EINTR);
        if (result != 0) return false;
        // Another writer may have saved since this reference read the file: start from its
        // version, unless this reference already holds changes made on the older one.
        std::optional<Contents> current = ReadContents(path_);
        if (!current) return false;
        if (current->bytes != contents_.bytes) {
            if (changed_) return false;
            contents_ = std::move(*current);
        } else {
            contents_.status = current->status;
        }
        lock_ = std::move(fd);
        return true;
    }

    bool Unlock() override {
        if (lock_.get() < 0) return false;
        lock_.reset();
        return true;
    }

    std::optional<Value> GetValue(const std::string& key) override {
        auto it = contents_.root.find(key);
        if (it == contents_.root.end()) return std::nullopt;
        return it->second;
    }

    std::optional<Dictionary> PathGetValue(const std::string& path) override {
        auto components = PathComponents(path);
        if (!components) return std::nullopt;
        const Dictionary* at = &contents_.root;
        for (const std::string& name : *components) {
            auto it = at->find(name);
            if (it == at->end() || !it->second.AsDictionary()) return std::nullopt;
            at = it->second.AsDictionary();
        }
        return *at;
    }

    bool PathSetValue(const std::string& path, const Dictionary& value) override {
        auto components = PathComponents(path);
        if (!components) return false;
        Dictionary* at = &contents_.root;
        for (const std::string& name : *components) {
            auto [it, added] = at->try_emplace(name, Dictionary{});
            if (!it->second.AsDictionary()) return false;
            at = it->second.AsDictionary();
        }
        *at = value;
        changed_ = true;
        return true;
    }

    bool PathRemoveValue(const std::string& path) override {
        auto components = PathComponents(path);
        if (!components || components->empty()) return false;
        Dictionary* at = &contents_.root;
        for (std::size_t i = 0; i + 1 < components->size(); ++i) {
            auto it = at->find((*components)[i]);
            if (it == at->end() || !it->second.AsDictionary()) return false;
            at = it->second.AsDictionary();
        }
        if (at->erase(components->back()) == 0) return false;
        changed_ = true;
        return true;
    }

    bool CommitChanges() override {
        if (!changed_) return true;
        // Saving always happens under the lock, taken here for the commit when the caller has not.
        bool ownLock = lock_.get() < 0;
        if (ownLock && !Lock(true)) return false;
        bool saved = Save();
        if (ownLock) Unlock();
        return saved;
    }

    // Nothing in the running system reads the file on its own; there is nothing to activate.
    bool ApplyChanges() override { return true; }

private:
    // Replaces the file in one step, so a reader sees either the old or the new preferences, never
    // a part; the new file gets the old one's owner and mode.
    bool Save() {
        std::string bytes = XmlPropertyList(Value(contents_.root));
        auto [folderPath, name] = SplitPath(path_);
        UniqueFd folder(open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const struct stat& old = contents_.status;
        if (folder.get() < 0 ||
            !WriteFileAtomically(folder.get(), name, bytes, old.st_mode & 07777, FileOwner{old.st_uid, old.st_gid}))
            return false;
        // The rename itself is made durable with the folder.
        fsync(folder.get());
        contents_.bytes = std::move(bytes);
        changed_ = false;
        return true;
    }

    std::string path_;
    Contents contents_;
    bool changed_ = false;
    UniqueFd lock_;
};

}  // namespace

SystemPreferencesFile::SystemPreferencesFile(std::string path) : path_(std::move(path)) {}

std::unique_ptr<SystemPreferences> SystemPreferencesFile::Create(const std::string&) {
    std::optional<Contents> contents = ReadContents(path_);
    if (!contents) return nullptr;
    return std::make_unique<FilePreferences>(path_, std::move(*contents));
}

template <>
SystemPreferencesStore& DefaultService<SystemPreferencesStore>() {
    static SystemPreferencesFile store(kSystemPreferencesPath);
    return store;
}

}  // namespace qvk::platform
