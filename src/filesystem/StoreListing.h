// StoreListing: the store's directory listings on its main connection.
// Fetches the "LIST" text of a directory (changing to "/" and then into it,
// then recvData), turns its zero bytes into blanks, decides its style and
// walks the entries the store keeps of it, straight from the text: shared
// records and their total (getFileDescriptorList), the names of one type, any
// entry at all, or the size of a whole tree. Owned by FTPFileSystemImpl.
//
// Thread safety: no lock of its own and no state but the main tool. Every
// member that fetches changes the main connection's working directory, so the
// store holds its operation lock around each call (its forwarding members
// carry that requirement); the text-only members (blankZeroBytes,
// forEachEntry, getFTPFileType) may be called by any thread on its own text.
#ifndef FTPDISK_FILESYSTEM_STORELISTING_H
#define FTPDISK_FILESYSTEM_STORELISTING_H

#include <stdint.h>

#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/ListingLines.h"
#include "listing/ListingStyle.h"

class StoreListing {
public:
    typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > EntryList;

    // Lists on `mainTool`, the store's main connection.
    explicit StoreListing(const SafePointer<FTPTool>& mainTool);

    // --- Over the main connection (the store's operation lock held) --------
    // FTPFileSystemImpl::getFileDescriptorList: one shared record per kept
    // entry appended to `entries`, each size added to `total` (never reset).
    // False for a null path, a directory that cannot be entered or a listing
    // not fetched; true otherwise, also for an unknown style.
    bool getFileDescriptorList(const char* path, EntryList& entries, long long& total);
    // The names of the entries of `type`, in listing order, appended to
    // `names`. False when `path` cannot be entered or listed.
    bool appendNames(const char* path, int32_t type, std::vector<std::string>& names);
    // True when `path` lists no entry, and also when the server refuses to
    // enter it (no path at all is one that cannot be entered), so that callers
    // cleaning up empty directories treat a vanished one as done. False for a
    // directory entered but not listed whole, and for one whose change of
    // directory got no answer: not empty as far as anyone knows.
    bool isEmpty(const char* path);
    // FTPFileSystemImpl::scanRecordDir: every listed size below `path` added
    // to `size`, the directory entries' own included, depth first. False as
    // soon as a level cannot be listed; what was added so far stays.
    bool scanRecordDir(const char* path, long long& size);

    // --- Any tool, any text ------------------------------------------------
    // FTPFileSystemImpl::recvData: the long listing of `path` fetched over
    // `tool` and appended to `text`. True only at the end of the data with a
    // 2xx closing reply; false when the data connection does not open, a read
    // fails, the closing reply refuses or does not come, or the whole transfer
    // takes over 60 s (logged as "FTPFileSystemImpl::recvData").
    static bool recvData(SafePointer<FTPTool> tool, const char* path, std::string& text);
    // FTPFileSystemImpl::getFTPFileType: the style of `lines` (kListingUnix,
    // kListingDos or kListingUnknown); always true.
    static bool getFTPFileType(const std::vector<std::string>& lines, int& type);
    // Turns every zero byte of a fetched listing into a blank, in place, so
    // that a stray zero from a server never cuts a line short.
    static void blankZeroBytes(std::string& text);

    // Hands `sink(record)` every entry the store keeps of a fetched (blanked)
    // listing: what the parser of its style keeps (lines cut at "\r\n"; a
    // listing with bare line feeds is one line), less the "." and ".." of a
    // DOS listing, which followed or removed would walk back up the tree. An
    // unknown style gives none. The record is scratch, reused per line: the
    // sink may take its name (swap) but must not keep the reference. A sink
    // returning false stops the walk.
    template <typename Sink>
    static void forEachEntry(const std::string& text, Sink& sink) {
        const int style = FTPConst::detectTextStyle(text);
        KeptEntries<Sink> kept(style, sink);
        FTPConst::forEachListedEntry(text, style, kept);
    }

private:
    StoreListing(const StoreListing&);
    StoreListing& operator=(const StoreListing&);

    // Changes to "/" and then to `path` on the main tool and fetches the
    // listing of `path` into `text`, its zero bytes blanked. False when the
    // directory cannot be entered or the listing not fetched whole; then
    // *notEntered (when given) is true only if the server refused the change
    // into `path` with its reply.
    bool fetch(const char* path, std::string& text, bool* notEntered = nullptr);

    static bool isSelfOrParent(const std::string& name) { return name == "." || name == ".."; }

    // The DOS parser keeps every name; the Unix parser already drops every
    // dot name.
    template <typename Sink>
    class KeptEntries {
    public:
        KeptEntries(int style, Sink& sink) : dos_(style == FTPConst::kListingDos), sink_(sink) {}

        bool operator()(FTPConst::FTPFileDescriptor& record) {
            if (dos_ && isSelfOrParent(record.name)) {
                return true;
            }
            return sink_(record);
        }

    private:
        bool dos_;
        Sink& sink_;
    };

    SafePointer<FTPTool> mainTool;
};

#endif  // FTPDISK_FILESYSTEM_STORELISTING_H
