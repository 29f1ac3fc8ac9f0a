// The listing members of FTPFileSystemImpl: fetching "LIST" text over the main
// connection, deciding its style, parsing it into entry records, and the
// enumeration, scan and size walks built on that.
//
// Every listing runs on the store's main connection and changes its working
// directory, so every caller of getFileDescriptorList holds opLock. scan also
// holds scanLock, taken first (lock order: scanLock before opLock), and calls
// the host's visitor with opLock released so the visitor may call back into the
// store.
#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "connections/TimeOutDetector.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "host/StringHandler.h"
#include "listing/LinuxFTPFileParser.h"
#include "listing/ListingStyle.h"
#include "listing/WindowsFTPFileParser.h"

namespace {

typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > EntryList;

// A listing read is abandoned when the whole transfer (not the gap between two
// reads) takes longer than this: a server that trickles bytes forever must not
// hold the main connection, and with it every path operation, indefinitely.
const int kListingStallSeconds = 60;
const unsigned int kListingChunkBytes = 1024;

const int32_t kTypeDirectory = 'd';
const int32_t kTypeFile = '-';

const char* const kLockSite = "FTPFileSystemImpl";

// The self and parent entries a DOS-style server may list. The Unix parser
// drops every dot name; the DOS parser keeps all names, so these two are taken
// out here: followed by scanRecordDir or removed by rmFTPDir they would walk
// back up the tree (endlessly, or deleting the parent).
bool isSelfOrParent(const std::string& name) { return name == "." || name == ".."; }

// Appends to `names`, in listing order, the names of the entries of `type`.
void appendNamesOfType(const EntryList& entries, int32_t type, std::vector<std::string>& names) {
    for (EntryList::const_iterator it = entries.begin(); it != entries.end(); ++it) {
        if ((*it)->type == type) {
            names.push_back((*it)->name);
        }
    }
}

}  // namespace

bool FTPFileSystemImpl::recvData(SafePointer<FTPTool> tool, const char* path, std::string& text) {
    NetBuf* data = NULL;
    if (tool->dataConnect(path, kFtpList, 'I', &data) == 0 || data == NULL) {
        return false;
    }
    std::vector<char> chunk(kListingChunkBytes);
    // Started only once the data connection is open: the limit bounds the
    // transfer itself, not the "TYPE"/"PASV"/"LIST" exchange before it.
    TimeOutDetector detector(kListingStallSeconds);
    try {
        for (;;) {
            const int got = tool->read(&chunk[0], static_cast<int>(chunk.size()), data);
            if (detector.isTimeOut()) {
                // The bytes of this last read are dropped with the rest.
                detector.writeLog("FTPFileSystemImpl::recvData", 0, 0);
                tool->closeData(data);
                return false;
            }
            if (got < 1) {
                // End of data and a read error alike end the listing with what
                // arrived so far.
                tool->closeData(data);
                return true;
            }
            // Exactly the bytes read: a zero byte inside the chunk is kept here
            // and turned into a blank by getFileDescriptorList.
            text.append(&chunk[0], static_cast<std::string::size_type>(got));
        }
    } catch (const std::exception&) {
        // A listing too large for the memory left: the data connection is
        // closed (its final reply read) before the failure goes on to the
        // exported call, which turns it into its failure value.
        tool->closeData(data);
        throw;
    }
}

bool FTPFileSystemImpl::getFTPFileType(const std::vector<std::string>& lines, int& type) {
    // The first line with exactly 4 words decides DOS, the first with exactly
    // 9 words Unix; no lines, or none of either count, leaves the style
    // unknown.
    type = detectListingStyle(lines);
    return true;
}

bool FTPFileSystemImpl::getFileDescriptorList(const char* path, EntryList& entries,
                                              long long& total) {
    if (path == NULL) {
        return false;
    }
    // Listings ask for `path` again after changing into it; starting from "/"
    // makes root-relative paths mean the same whatever the previous operation
    // left as the working directory.
    mainTool->cd("/");
    if (mainTool->cd(path) != 1) {
        return false;
    }
    std::string text;
    if (!recvData(SafePointer<FTPTool>(mainTool), path, text)) {
        return false;
    }

    // Stray zero bytes from a server must not cut a line short: each becomes a
    // blank (and so splits the word it stood in). Done in place: a listing has
    // no size limit, and on the recorder a second and third copy of a large
    // one would cost as much memory again each.
    std::replace(text.begin(), text.end(), '\0', ' ');

    // Lines end in CR LF on the wire; a listing with bare line feeds stays one
    // line. The text is released as soon as it is cut.
    std::vector<std::string> lines;
    StringHandler::split(text, lines, "\r\n");
    std::string().swap(text);
    if (lines.empty()) {
        return true;
    }

    int type = FTPConst::kListingUnknown;
    getFTPFileType(lines, type);
    if (type == FTPConst::kListingUnix) {
        LinuxFTPFileParser parser;
        parser.getFileDescriptorList(lines, entries, total);
    } else if (type == FTPConst::kListingDos) {
        EntryList parsed;
        long long parsedTotal = 0;
        WindowsFTPFileParser parser;
        parser.getFileDescriptorList(lines, parsed, parsedTotal);
        for (EntryList::const_iterator it = parsed.begin(); it != parsed.end(); ++it) {
            if (isSelfOrParent((*it)->name)) {
                continue;
            }
            entries.push_back(*it);
            total += static_cast<long long>((*it)->size);
        }
    }
    return true;
}

bool FTPFileSystemImpl::appendNamesListed(const char* path, int32_t type,
                                          std::vector<std::string>& names) {
    if (path == NULL) {
        return false;
    }
    KDMutexLocker guard(opLock, kLockSite, __LINE__);
    if (!initialised) {
        return false;
    }
    EntryList entries;
    long long total = 0;
    if (!getFileDescriptorList(path, entries, total)) {
        return false;
    }
    appendNamesOfType(entries, type, names);
    return true;
}

bool FTPFileSystemImpl::getFileList(const char* path, std::vector<std::string>& names,
                                    const std::string& /*filter: every file is returned*/) {
    return appendNamesListed(path, kTypeFile, names);
}

bool FTPFileSystemImpl::getSubDirList(const char* path, std::vector<std::string>& names,
                                      const std::string& /*filter: every directory is returned*/) {
    return appendNamesListed(path, kTypeDirectory, names);
}

bool FTPFileSystemImpl::isEmptyDir(const char* path) {
    // No path is no question: answered "not empty" without any traffic, so a
    // caller that removes empty directories does nothing with it.
    if (path == NULL) {
        return false;
    }
    KDMutexLocker guard(opLock, kLockSite, __LINE__);
    if (!initialised) {
        return false;
    }
    EntryList entries;
    long long total = 0;
    // A directory that cannot be entered or listed counts as empty, so callers
    // that clean up empty directories treat a vanished one as done.
    if (!getFileDescriptorList(path, entries, total)) {
        return true;
    }
    return entries.empty();
}

int FTPFileSystemImpl::getFileNumber(const char* /*path*/) {
    // Counting files is not offered: callers use getFileList instead.
    return -1;
}

bool FTPFileSystemImpl::scan(const char* path, IFileScanAction* action,
                             const std::string& /*filter: every file is visited*/) {
    if (path == NULL || action == NULL) {
        return false;
    }
    // scanLock for the whole walk, so two scans never interleave their visits;
    // opLock only for the listing itself, so the visitor may use the store.
    KDMutexLocker scanGuard(scanLock, kLockSite, __LINE__);
    if (!initialised) {
        return false;
    }
    EntryList entries;
    {
        KDMutexLocker opGuard(opLock, kLockSite, __LINE__);
        long long total = 0;
        if (!initialised || !getFileDescriptorList(path, entries, total)) {
            return false;
        }
    }
    for (EntryList::const_iterator it = entries.begin(); it != entries.end(); ++it) {
        // What the visitor returns does not stop the walk.
        if ((*it)->type == kTypeFile) {
            action->onFile((*it)->name.c_str());
        }
    }
    return true;
}

bool FTPFileSystemImpl::getTotalSize(const char* path, long long& size) {
    if (path == NULL) {
        return false;
    }
    KDMutexLocker guard(opLock, kLockSite, __LINE__);
    if (!initialised) {
        return false;
    }
    return scanRecordDir(path, size);
}

bool FTPFileSystemImpl::scanRecordDir(const char* path, long long& size) {
    EntryList entries;
    long long total = 0;
    if (!getFileDescriptorList(path, entries, total)) {
        return false;
    }
    // Every listed size counts, the directory entries' own sizes included.
    size += total;
    for (EntryList::const_iterator it = entries.begin(); it != entries.end(); ++it) {
        if ((*it)->type != kTypeDirectory) {
            continue;  // files are counted above; links are not followed
        }
        // Each level changes to "/" and then to the full child path, so the
        // child path is built from the parent's rather than relative to it.
        std::string child(path);
        child += '/';
        child += (*it)->name;
        if (!scanRecordDir(child.c_str(), size)) {
            return false;  // what was added so far stays in `size`
        }
    }
    return true;
}
