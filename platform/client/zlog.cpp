// qv/zlog.h over the zlog library: one category, one rotating file.
#include "qv/zlog.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlog.h>

#include "platform/base/guarded.h"
#include "platform/base/visible.h"
#include "platform/client/platform.h"
#include "qv/syslog.h"

struct qv_zlog_category {
    qv_zlog_category(const std::string& of, zlog_category_t* in) : name(of), file(in) {}

    std::string name;
    zlog_category_t* file;  // null: lines are dropped
};

namespace {

// The most that one name takes on disk: the current file and this many old ones, NAME.0.log the
// oldest.
constexpr char kRotation[] = "1MB * 4";

// The library reads the path from its own configuration text, where a blank, a quote or a percent
// sign means something else. Control bytes do not belong in a path either.
bool plain(std::string_view text) {
    for (const char c : text) {
        if (c <= ' ' || c == '"' || c == '%' || c == '$' || c == 0x7f) {
            return false;
        }
    }
    return !text.empty();
}

// Creates the file for its owner only. Returns why the library could not use it, which does not say
// so itself, or must not: it would follow a symbolic link, and wait for the reader of a pipe.
std::string make_file(const std::string& path) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const int fd = open(path.c_str(), kFlags, 0600);
    if (fd < 0) {
        return errno == ELOOP ? "it is a symbolic link" : std::strerror(errno);
    }
    struct stat status {};
    const bool regular = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    close(fd);
    return regular ? "" : "it is not a regular file";
}

std::string rotation_lock(const std::string& directory, const std::string& name) {
    return directory + "/." + name + ".lock";
}

std::string configuration(const std::string& directory, const std::string& name) {
    const std::string base = directory + "/" + name;
    std::string text = "[global]\nstrict init = true\nbuffer min = 1024\nbuffer max = 64KB\n";
    // The library's own default is one lock file for every user of the machine in /tmp.
    text += "rotate lock file = " + rotation_lock(directory, name) + "\n";
    text += "[formats]\nline = \"%d(%F %T).%ms %V %m\"\n";
    text += "[rules]\n" + name + ".* \"" + base + ".log\", " + kRotation;
    text += " ~ \"" + base + ".#r.log\"; line\n";
    return text;
}

// Passes the text in a memory file: the library's call that takes a text leaks 120 KB.
bool start_library(const std::string& text) {
    const int fd = memfd_create("log-configuration", MFD_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool whole = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const bool started = whole && zlog_init(path.c_str()) == 0;
    close(fd);
    return started;
}

zlog_category_t* open_category(const std::string& directory, const std::string& name) {
    std::string path = directory + "/" + name + ".log";
    std::string reason;
    if (!plain(directory) || !plain(name) || name.find('/') != std::string::npos) {
        reason = "the name has a character that is not allowed";
    } else if (reason = make_file(path); !reason.empty()) {
        // nothing was written
    } else if (reason = make_file(rotation_lock(directory, name)); !reason.empty()) {
        path = rotation_lock(directory, name);
    } else if (!start_library(configuration(directory, name))) {
        reason = "the log library refused its configuration";
    } else if (zlog_category_t* category = zlog_get_category(name.c_str())) {
        return category;
    } else {
        zlog_fini();
        reason = "the log library has no such category";
    }
    printk_syslog(SYSLOG_SEVERITY_ERROR, "LOG", "OPEN", "Cannot open log file %s: %s", path.c_str(),
                  reason.c_str());
    // The agent exits after this without a message of its own, and perhaps no system log runs.
    std::fprintf(
        stderr,
        "lda: cannot open the log file %s: %s. Create its folder, or change log_dir in the "
        "platform file.\n",
        qv::visible(path).c_str(), reason.c_str());
    return nullptr;
}

// Null after a log line.
qv_zlog_category* make_category(const std::string& name) {
    auto category = std::make_unique<qv_zlog_category>(name, nullptr);
    const std::string& directory = qv::platform().config().log_dir;
    if (!directory.empty()) {
        category->file = open_category(directory, name);
        if (category->file == nullptr) {
            return nullptr;
        }
    }
    return category.release();
}

}  // namespace

qv_zlog_category* qv_zlog_init(const char* name) {
    static qv_zlog_category* category = nullptr;  // for the life of the process
    if (name == nullptr) {
        return nullptr;
    }
    return qv::guarded<qv_zlog_category*>(nullptr, [name] {
        if (category == nullptr) {
            category = make_category(name);
        }
        return category != nullptr && category->name == name ? category : nullptr;
    });
}

void qvdf_zlog(qv_zlog_category* category, const char* file, const char* function, long line,
               int level, const char* text) {
    // The library looks a level up in a table of 256 bits without a check of its own, and follows a
    // null category.
    if (category == nullptr || category->file == nullptr || text == nullptr || level < 1 ||
        level > 254) {
        return;
    }
    const char* const source = file != nullptr ? file : "";
    const char* const caller = function != nullptr ? function : "";
    qv::guarded([&] {
        const std::string shown = qv::visible(text, qv::kLinesAndTabs);
        zlog(category->file, source, std::strlen(source), caller, std::strlen(caller), line, level,
             "%s%s", shown.c_str(), shown.ends_with('\n') ? "" : "\n");
    });
}
