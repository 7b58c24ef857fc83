#include "platform/linux/system_preferences_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "platform/property_list.h"
#include "platform/service.h"

namespace qvk::platform {

namespace {

constexpr const char* kSystemPreferencesPath = "/Library/Preferences/SystemConfiguration/preferences.plist";

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            Reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    ~Fd() { Reset(); }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void Reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }
    // Closes now and reports whether the last writes reached the file.
    bool Close() { return close(std::exchange(fd_, -1)) == 0; }

private:
    int fd_ = -1;
};

// A regular file opened for reading; a symbolic link, a FIFO or a device is refused. Non-blocking
// open so that a FIFO put in the file's place can't hang the caller.
Fd OpenRegular(const std::string& path, int flags, mode_t mode = 0) {
    Fd fd(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return Fd();
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

bool WriteAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::string ParentFolder(const std::string& path) {
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
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
    Fd fd = OpenRegular(path, O_RDONLY);
    Contents contents;
    if (!fd.valid() || fstat(fd.get(), &contents.status) != 0 || !ReadAll(fd.get(), contents.bytes))
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
        if (lock_.valid()) return false;
        Fd fd = OpenRegular(path_ + "-lock", O_RDWR | O_CREAT, 0644);
        if (!fd.valid()) return false;
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
        if (!lock_.valid()) return false;
        lock_.Reset();
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
        bool ownLock = !lock_.valid();
        if (ownLock && !Lock(true)) return false;
        bool saved = Save();
        if (ownLock) Unlock();
        return saved;
    }

    // Nothing in the running system reads the file on its own; there is nothing to activate.
    bool ApplyChanges() override { return true; }

private:
    // Writes a new file beside the old one and renames it into place, so a reader sees either the
    // old or the new preferences, never a part. mkstemp creates the name exclusively, so a link
    // planted at a temporary name is never followed.
    bool Save() {
        std::string bytes = XmlPropertyList(Value(contents_.root));
        std::string temporary = path_ + ".XXXXXX";
        Fd fd(mkostemp(temporary.data(), O_CLOEXEC));
        if (!fd.valid()) return false;
        const struct stat& old = contents_.status;
        bool written = WriteAll(fd.get(), bytes) && fchown(fd.get(), old.st_uid, old.st_gid) == 0 &&
                       fchmod(fd.get(), old.st_mode & 07777) == 0 && fsync(fd.get()) == 0;
        struct stat status {};
        written = written && fstat(fd.get(), &status) == 0;
        if (!fd.Close() || !written || rename(temporary.c_str(), path_.c_str()) != 0) {
            unlink(temporary.c_str());
            return false;
        }
        // The rename itself is made durable with the folder.
        Fd folder(open(ParentFolder(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folder.valid()) fsync(folder.get());
        contents_.bytes = std::move(bytes);
        contents_.status = status;
        changed_ = false;
        return true;
    }

    std::string path_;
    Contents contents_;
    bool changed_ = false;
    Fd lock_;
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
