// StoreListing: fetching "LIST" text over the store's main connection and
// walking the entries the store keeps of it, straight from the text. Each
// caller takes only what it needs of the entries: shared records are made for
// getFileDescriptorList alone.
#include "filesystem/StoreListing.h"

#include <string.h>

#include <exception>

#include "connections/TimeOutDetector.h"
#include "foundation/LastError.h"
#include "listing/EntryList.h"

namespace {

typedef StoreListing::EntryList EntryList;

// A listing read is abandoned when the whole transfer (not the gap between two
// reads) takes longer than this: a server that trickles bytes forever must not
// hold the main connection, and with it every path operation, indefinitely.
const int kListingStallSeconds = 60;
const unsigned int kListingChunkBytes = 1024;

// Shared records and the total, as getFileDescriptorList gives them.
class RecordsAndTotal {
public:
    RecordsAndTotal(EntryList& entries, long long& total) : entries_(entries), total_(total) {}

    bool operator()(FTPConst::FTPFileDescriptor& record) {
        FTPConst::FTPFileDescriptor* kept = new FTPConst::FTPFileDescriptor;
        kept->type = record.type;
        kept->size = record.size;
        kept->name.swap(record.name);
        // Built in place: a temporary pointer copied in would lock its count
        // twice more per entry.
        entries_.emplace_back(kept);
        total_ += static_cast<long long>(kept->size);
        return true;
    }

private:
    EntryList& entries_;
    long long& total_;
};

// The names of the entries of one type, in listing order.
class NamesOfType {
public:
    NamesOfType(int32_t type, std::vector<std::string>& names) : type_(type), names_(names) {}

    bool operator()(FTPConst::FTPFileDescriptor& record) {
        if (record.type == type_) {
            names_.push_back(std::string());
            names_.back().swap(record.name);
        }
        return true;
    }

private:
    int32_t type_;
    std::vector<std::string>& names_;
};

// Whether there is any entry at all; stops at the first.
class AnyEntry {
public:
    AnyEntry() : found(false) {}

    bool operator()(FTPConst::FTPFileDescriptor&) {
        found = true;
        return false;
    }

    bool found;
};

// scanRecordDir's view: every size, and the names of the directories.
class SizesAndDirectories {
public:
    SizesAndDirectories() : total(0) {}

    bool operator()(FTPConst::FTPFileDescriptor& record) {
        total += static_cast<long long>(record.size);
        if (record.type == FTPConst::kTypeDirectory) {
            directories.push_back(std::string());
            directories.back().swap(record.name);
        }
        return true;
    }

    long long total;
    std::vector<std::string> directories;
};

}  // namespace

StoreListing::StoreListing(const SafePointer<FTPTool>& mainTool) : mainTool(mainTool) {}

void StoreListing::blankZeroBytes(std::string& text) {
    // Done in place: a listing has no size limit, and on the recorder a second
    // copy of a large one would cost as much memory again. memchr skips the
    // (usually zero-free) text many bytes at a time.
    if (text.empty()) {
        return;
    }
    char* at = &text[0];
    char* const end = at + text.size();
    while ((at = static_cast<char*>(memchr(at, '\0', static_cast<size_t>(end - at)))) != nullptr) {
        *at++ = ' ';
    }
}

bool StoreListing::fetch(const char* path, std::string& text, bool* notEntered) {
    if (notEntered != nullptr) {
        *notEntered = false;
    }
    // Listings ask for `path` again after changing into it; starting from "/"
    // makes root-relative paths mean the same whatever the previous operation
    // left as the working directory.
    {
        // Its outcome is not looked at, so it is not the call's reason either.
        lasterror::Quiet quiet;
        mainTool->cd("/");
    }
    if (mainTool->cd(path) != 1) {
        // Only a server that answered the change of directory with a lasting
        // refusal (5xx) has said the directory cannot be entered; a 4xx (busy,
        // closing), a change that got no answer, or one never sent, has said
        // nothing about it. The reason is this thread's own, so no other
        // thread sharing the main connection (a snapshot) can change it here.
        if (notEntered != nullptr) {
            *notEntered = path == nullptr ||
                          (lasterror::kind() == lasterror::kRefused && lasterror::text()[0] == '5');
        }
        return false;
    }
    if (!recvData(mainTool, path, text)) {
        return false;
    }
    // Stray zero bytes from a server must not cut a line short: each becomes a
    // blank (and so splits the word it stood in).
    blankZeroBytes(text);
    return true;
}

// The tool comes by value: the listing members keep their long-standing
// signatures.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool StoreListing::recvData(SafePointer<FTPTool> tool, const char* path, std::string& text) {
    NetBuf* data = nullptr;
    if (tool->dataConnect(path, kFtpList, 'I', &data) == 0 || data == nullptr) {
        return false;
    }
    // Started only once the data connection is open: the limit bounds the
    // transfer itself, not the "TYPE"/"PASV"/"LIST" exchange before it.
    TimeOutDetector detector(kListingStallSeconds);
    try {
        for (;;) {
            // Up to 1024 bytes a read, received straight into the end of the
            // text rather than into a chunk that is then copied.
            const std::string::size_type before = text.size();
            text.resize(before + kListingChunkBytes);
            const int got = tool->read(&text[before], static_cast<int>(kListingChunkBytes), data);
            text.resize(before + (got > 0 ? static_cast<std::string::size_type>(got) : 0));
            if (detector.isTimeOut()) {
                // The bytes of this last read are dropped with the rest.
                text.resize(before);
                detector.writeLog("FTPFileSystemImpl::recvData", 0, 0);
                lasterror::note(lasterror::kNoReply, "listing not ended within 60 s");
                lasterror::Quiet quiet;
                tool->closeData(data);
                return false;
            }
            if (got == 0) {
                // Only the end of the data ends a listing well, and only when
                // the server's closing reply confirms it: a transfer it
                // aborted (426), or whose closing reply does not come in
                // time, may have been cut short.
                return tool->closeData(data) == 1;
            }
            if (got < 0) {
                // A read that failed, or whose wait ran out, leaves the
                // listing cut at an unknown place: a recorder must not act on
                // a directory it has not seen whole (deleting the oldest
                // recordings, removing an "empty" folder). The read's reason
                // is the listing's.
                lasterror::Quiet quiet;
                tool->closeData(data);
                return false;
            }
            // Exactly the bytes read are kept: a zero byte inside them stays
            // here and is turned into a blank once the whole listing is in.
        }
    } catch (const std::exception&) {
        // A listing too large for the memory left: the data connection is
        // closed (its final reply read) before the failure goes on to the
        // exported call, which turns it into its failure value.
        lasterror::Quiet quiet;
        tool->closeData(data);
        throw;
    }
}

bool StoreListing::getFTPFileType(const std::vector<std::string>& lines, int& type) {
    // The first line with exactly 4 words decides DOS, the first with exactly
    // 9 words Unix; no lines, or none of either count, leaves the style
    // unknown.
    type = detectListingStyle(lines);
    return true;
}

bool StoreListing::getFileDescriptorList(const char* path, EntryList& entries, long long& total) {
    if (path == nullptr) {
        return false;
    }
    std::string text;
    if (!fetch(path, text)) {
        return false;
    }
    // Room for every line at once: growing the list would copy, and lock the
    // count of, every record already in it.
    FTPConst::reserveForLines(entries, FTPConst::ListingLines::count(text));
    RecordsAndTotal records(entries, total);
    forEachEntry(text, records);
    return true;
}

bool StoreListing::appendNames(const char* path, int32_t type, std::vector<std::string>& names) {
    std::string text;
    if (!fetch(path, text)) {
        return false;
    }
    // Straight from the text: only the names are wanted, so no entry record
    // is made and none is registered.
    NamesOfType wanted(type, names);
    forEachEntry(text, wanted);
    return true;
}

bool StoreListing::isEmpty(const char* path) {
    std::string text;
    // A directory the server refuses to enter counts as empty, so callers
    // that clean up empty directories treat a vanished one as done; no path
    // at all is one that cannot be entered. A directory that was entered but
    // whose listing did not come whole is not empty as far as anyone knows,
    // nor is one whose change of directory got no answer.
    bool notEntered = false;
    if (!fetch(path, text, &notEntered)) {
        return notEntered;
    }
    AnyEntry any;
    forEachEntry(text, any);
    return !any.found;
}

bool StoreListing::scanRecordDir(const char* path, long long& size) {
    SizesAndDirectories level;
    {
        std::string text;
        if (!fetch(path, text)) {
            return false;
        }
        forEachEntry(text, level);
        // The text goes before the walk goes deeper: only one level's listing
        // is held at a time.
    }
    // Every listed size counts, the directory entries' own sizes included.
    size += level.total;
    for (std::vector<std::string>::const_iterator it = level.directories.begin();
         it != level.directories.end(); ++it) {
        // Each level changes to "/" and then to the full child path, so the
        // child path is built from the parent's rather than relative to it.
        // Links are not followed: only directories are in the list.
        std::string child(path);
        child += '/';
        child += *it;
        if (!scanRecordDir(child.c_str(), size)) {
            return false;  // what was added so far stays in `size`
        }
    }
    return true;
}
