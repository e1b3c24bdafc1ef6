// The external sorter: fixed-length records in bins, each bin sorted in
// memory, sorted runs spilled to one work file when more than one bin
// arises, and the records handed back in order from memory or through a
// tournament-tree merge that may run in a thread of its own.
#pragma once
#include <cstddef>
#include <cstdint>

#include "sda/dafd.h"
#include "ssubs/skb.h"
#include "ssup/thr.h"
#include "ssup/vrtadef.h"

namespace vrta {

enum sr_stype_t : int { SR_DEFAULTSORT = 0, SR_HEAPSORT = 1, SR_QUICKSORT = 57 };
enum sr_mode_t : int { SR_DEFAULTMODE = 0, SR_MOVE_SORT = 1, SR_POINTER_SORT = 2 };

constexpr rctype SR_RC_BADCOUNT = static_cast<rctype>(0x80000406u);   // past the bin, or wrong record length
constexpr rctype SR_RC_NOMEM = static_cast<rctype>(0x80000407u);
constexpr rctype SR_RC_MERGEREAD = static_cast<rctype>(0x80000408u);  // thread or read failure in the merge
constexpr rctype SR_RC_BADALG = static_cast<rctype>(0x80000409u);
constexpr rctype SR_RC_SORTFAIL = static_cast<rctype>(0x8000040au);
constexpr rctype SR_RC_SPILL = static_cast<rctype>(0x8000040bu);
constexpr rctype SR_RC_NOMERGE = static_cast<rctype>(0x8000040cu);
constexpr rctype SR_RC_INTERRUPT = static_cast<rctype>(0x8000040du);
constexpr rctype SR_RC_BADFILL = static_cast<rctype>(0x80000419u);
constexpr rctype SR_RC_CONDWAIT = static_cast<rctype>(0x8000038au);
constexpr rctype SR_MERGE_INTERRUPTED = 1025;  // the merge saw the interrupt

// SR_PARMS.flags.
constexpr int SR_MERGEMASK = 0xf;     // 1 with a thread, 2 without, 0 ask the option
constexpr int SR_EXACTMEM = 0x80;     // mem_size as it is: no cap, no retry
constexpr int SR_RANPLACE = 0x100;    // place spill files by ranplace

constexpr int64_t SR_NOLIMIT = 0x7FFFFFFFFFFFFFFF;

struct SR_PARMS {
    int32_t key_size;       // key bytes at the start of a record, when no skb
    int32_t aux_size;       // bytes behind the key
    size_t mem_size;        // sort memory; 0: from the option
    sr_stype_t algorithm;
    volatile int* interrupt;
    size_t merge_size;      // merge memory; 0: from the option
    sr_mode_t mode;
    int32_t flags;
    SKB_KEY* skb;
    int32_t ranplace;
    hs_obsno_t nrecs;       // a hint, unused
};

// One spill file and its transfer window.
struct SR_FILE {
    DA_FDSTR fstr;
    DA_FD* fd;
    da_off_t offset;        // logical end of what was written
    int binreclen;
    int binbufsize;
    int binblkfac;
    char* xferbuf;
    char* xferptr;
    long xfersize;
    long xferquantum;
    long xferremain;
    da_off_t xferwroffset;  // file offset of the window being filled
    da_off_t xferrdoffset;  // file offset of the window held for reading, -1 none
    long xfernread;
    char filename[64];
    char dirpath[1024];
    rctype failrc;          // the file layer's code behind the last failed save
};

// A saved run, with its read buffer of binbufsize bytes behind it.
struct SR_BIN {
    SR_BIN* next;
    SR_FILE* fp;
    da_off_t offset;   // in the file
    da_off_t size;     // bytes
    da_off_t remain;   // bytes not yet read into binbuf
    long bufoff;       // next record in binbuf
    long buflen;       // bytes held in binbuf
    char* binbuf;
};

struct SR_SFILE {
    SR_SFILE* next;
    int fd;  // in the head: the count of entries
};

struct TREEHEAD;
struct SR_CTX;

using sr_runfp_t = rctype (*)(char** loc, long* n_recs, void* data);
using sr_storefp_t = rctype (*)(sr_runfp_t run_fp, void* run_data, void* store_data);
using sr_fillfp_t = rctype (*)(char* bin, long* nrecs, void* fill_data);
// Sorts n records of base (move mode) or the entries of setup (pointer mode).
using sr_sortfp_t = rctype (*)(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb,
                               volatile int* interrupt);
// A pointer-mode entry: the record's first key bytes (for byte keys) above
// its index in the bin, so that most comparisons never touch the record.
inline uint64_t srentry(const char* rec, int keylen, bool bytekey, uint32_t index) {
    uint32_t pre = 0;
    if (bytekey)
        for (int i = 0; i < 4; ++i) pre = (pre << 8) | (i < keylen ? static_cast<unsigned char>(rec[i]) : 0);
    return (static_cast<uint64_t>(pre) << 32) | index;
}
inline uint32_t srindex(uint64_t entry) { return static_cast<uint32_t>(entry); }
// Reads the next record of a run into rec; its length, 0 at the run's end, -1 on failure.
using sr_binrdfp_t = long (*)(SR_BIN* bin, char** rec);

struct SR_RUNDATA {
    int rec_len;
    long n_recs;  // records per call
    char* buf;
    TREEHEAD* tree;
};

struct SR_CTX {
    SR_PARMS parms;
    int reclen;
    int keylen;
    long numbin;           // bins sorted so far
    int64_t totrecs;
    char* bin;
    size_t binsize;        // the memory
    long numrec;           // records in the open bin
    long numsave;          // sorted records not yet spilled
    long records_per_bin;
    long binoffset;
    SR_BIN* flist;         // saved runs, in the order written
    SR_BIN* flast;
    SR_FILE* file_handle;
    uint64_t* setup;       // pointer mode: the sorted order, as srentry values
    sr_sortfp_t sortfp;
    sr_storefp_t storefp;
    void* store_data;
    sr_runfp_t run_fp;
    SR_RUNDATA run_data;
    long nrdrecs;          // records left in the buffer srnextrec reads
    char* rdbufp;
    SKB_KEY memskb;        // the key block of a caller without one
    rctype runrc;          // what ended srnextrec's stream
    rctype spillrc;        // the code behind the last 0x8000040b: a full work path, ...
    bool done;
};

// The sorter's calls.
[[nodiscard]] rctype sropen(SR_PARMS* parms, SR_CTX** sp);
[[nodiscard]] rctype sraddbin(SR_CTX* sp, char** binbuf, long* numadd, char** pblk);
[[nodiscard]] rctype srendbin(SR_CTX* sp, long numadd);
[[nodiscard]] rctype srflush(SR_CTX* sp, int flags);
[[nodiscard]] rctype srfinish(SR_CTX* sp);
[[nodiscard]] rctype srrdrun(SR_CTX* sp, sr_storefp_t store, void* store_data);
// The records one at a time: reclen and *rec, 0 at the end, a negative code
// when the run failed (the stream then ends; an interrupt is SR_RC_INTERRUPT).
long srnextrec(SR_CTX* sp, char** rec);
[[nodiscard]] rctype srclose(SR_CTX* sp);

// For callers with bins of their own.
[[nodiscard]] rctype srsort(SR_PARMS* parms, sr_fillfp_t fillbin, void* fill_data, sr_storefp_t store, void* store_data,
              volatile int* interrupt);
[[nodiscard]] rctype srsort2init(SR_PARMS* parms, SR_CTX** sp);
[[nodiscard]] rctype srsort2addbin(SR_CTX* sp, char* bin, long nrecs);
[[nodiscard]] rctype srsort2abort(SR_CTX* sp);

const SR_PARMS* srgetparms(SR_CTX* sp);
SR_RUNDATA* srgetrundata(SR_CTX* sp);
int64_t srgetnrecs(SR_CTX* sp);
[[nodiscard]] rctype srgetrc(SR_CTX* sp);
// What made the last spill fail (DA_NOSPACE for a full work path), 0 if none did.
[[nodiscard]] rctype srgetspillrc(SR_CTX* sp);
void srfitmem(SR_PARMS* parms);
int srgetmode(SR_PARMS* parms);
int64_t srmemsize();

int srqrymerge();
long srmergerecs(int mtype, size_t merge_size, int rec_size);
size_t srgetmergesize(SR_PARMS* parms, long nrecs);

sr_sortfp_t srgetsfp(sr_stype_t algorithm, sr_mode_t mode, int keylen, int reclen);
// The heap sorts; a fixed-width member refuses other record lengths.
[[nodiscard]] rctype srhsort(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb,
                           volatile int* interrupt);
[[nodiscard]] rctype srhsrt8(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb,
                           volatile int* interrupt);
[[nodiscard]] rctype srhsr12(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb,
                           volatile int* interrupt);
[[nodiscard]] rctype srhsr16(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb,
                           volatile int* interrupt);
[[nodiscard]] rctype srhsr20(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb,
                           volatile int* interrupt);
[[nodiscard]] rctype srhsr24(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb,
                           volatile int* interrupt);
[[nodiscard]] rctype srhsorp(char* base, long n, uint64_t* setup, int keylen, int reclen, SKB_KEY* skb,
                           volatile int* interrupt);

// Spill files.
[[nodiscard]] rctype sr_file_init(SR_CTX* sp, SR_FILE** fpp);
[[nodiscard]] rctype sr_file_term(SR_FILE* fp);
[[nodiscard]] rctype sor_bin_save(SR_FILE* fp, const char* buf, long nrecs, SR_BIN** binp);
[[nodiscard]] rctype sor_bin_save_ptr(SR_FILE* fp, const char* base, const uint64_t* setup, long nrecs, SR_BIN** binp);
long sor_bin_read(SR_BIN* bin, char** rec);
[[nodiscard]] rctype sr_file_read(SR_FILE* fp, char* buf, long size, da_off_t offset, long* nread);
[[nodiscard]] rctype sr_file_rewind(SR_BIN* bin);
[[nodiscard]] rctype sr_file_flush(SR_FILE* fp);
[[nodiscard]] rctype sr_file_delete(SR_FILE* fp);
int32_t srranplace(SR_PARMS* parms);
[[nodiscard]] rctype sr_create_spill_file(const char* name_hdr, SR_FILE* fstrp, int random_place, DA_FD** fd);
// The work path text spill files go to: the WORKPATH option, else the
// temporary directory. Its length, 0 when there is none that fits size.
int srworkpath(char* dir, int size);
// Memory for a sort a caller asked for; asked <= 0 takes the option named
// first (when given), then SORTSIZE, then 64 MB.
int64_t srsortmemory(int64_t asked, const char* first);
// Removes spill files left in dir by processes that no longer run.
void sr_sweep_spill_files(const char* dir);

// The merge.
TREEHEAD* sor_init_merge(SR_CTX* srp, SR_BIN* head, sr_binrdfp_t binrdfp);
[[nodiscard]] rctype sor_term_merge(TREEHEAD* handle);
[[nodiscard]] rctype sor_read_run_file(char** loc, long* n_recs, void* data);
[[nodiscard]] rctype sor_read_run_buf(char** loc, long* n_recs, void* data);

}  // namespace vrta
