// The new content of a local file, written under a fresh temporary name in
// the same directory and renamed over the file only once complete, so that
// a failed download never leaves a truncated file under the name asked for,
// and nothing else in that directory is touched (a user's own "NAME.part"
// included).
//
//   LocalReplacement out("clips/seg.dat");   // creates clips/.seg.dat.ftpdisk-k3Zq8w
//   write(out.descriptor(), ...);
//   out.commit(problem);                     // renames it to clips/seg.dat
//
// The temporary file is created with O_EXCL under a name no other file has,
// mode 0644 less the umask. Whatever way the object goes without a
// successful commit(), its descriptor is closed and its temporary file, and
// only that, removed. One thread uses an object.
#ifndef FTPDISK_TOOLS_LOCALREPLACEMENT_H
#define FTPDISK_TOOLS_LOCALREPLACEMENT_H

#include <string>

namespace ftpdisk_tool {

class LocalReplacement {
public:
    explicit LocalReplacement(std::string target) : target_(std::move(target)) {}
    ~LocalReplacement() { abandon(); }
    LocalReplacement(const LocalReplacement&) = delete;
    LocalReplacement& operator=(const LocalReplacement&) = delete;

    // Creates the temporary file beside the target. Returns false, with
    // `problem` set and nothing created, when the directory refuses it.
    bool create(std::string& problem);

    // The open temporary file; -1 before create() and after commit() or
    // abandon().
    int descriptor() const { return fd_; }
    // Its path ("" before create()).
    const std::string& temporaryPath() const { return temporary_; }
    const std::string& target() const { return target_; }

    // Closes the temporary file and renames it over the target. Returns false,
    // with `problem` set and the temporary file removed, when closing or
    // renaming fails.
    bool commit(std::string& problem);

    // Closes and removes the temporary file, if there is one.
    void abandon();

private:
    std::string target_;
    std::string temporary_;
    int fd_ = -1;
};

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_LOCALREPLACEMENT_H
