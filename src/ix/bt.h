// The paged B-tree of the index files and its page pool.
//
// One file holds many trees: one per segment of rows, or one global tree.
// The pages of a tree always lie together from its root, so a tree is found
// by root and length in the segment pages; a tree that has to grow is moved
// to the file's end first and brought back when it did not grow. Leaf
// entries have a fixed length and no head; keys compare as bytes through
// the compare function of the key block. The pool writes pages strictly in
// file order, so a file never has a hole.
#pragma once
#include <cstddef>
#include <cstdint>

#include "ix/ix.h"
#include "sda/daidx.h"

namespace vrta {

using pgno_t = uint32_t;
using indx_t = uint16_t;

constexpr uint32_t BTREEMAGIC = 0x053162;
constexpr uint32_t BTREEVERSION = 1;
constexpr uint32_t BTREEVERMINOR = 2;
constexpr int64_t BT_GLOBALSEGSIZE = 0x7FFFFFFFFFFFFFFFLL;
constexpr uint32_t BT_MINPSIZE = 512;
constexpr uint32_t BT_MAXPSIZE = 65536;
constexpr int BT_DIRSLOTS = 50;

#pragma pack(push, 1)
// Descriptor at the head of a segment page.
struct _btdesc {
    uint32_t m_next;          // next segment page, when chained
    uint32_t m_maxindex;      // tree entries that fit
    uint32_t m_curindex;      // entries in use
    uint32_t m_index_small;   // entry with the smallest key
    uint32_t m_index_large;   // entry with the largest key
    uint32_t m_index_filemax; // the entry written last
    int64_t m_lastcount;      // rows in the last tree
    uint32_t m_treemax;       // largest m_treelen of the page
    uint32_t m_free_1, m_free_2, m_free_3, m_free_4;
    uint32_t m_pad;
};
static_assert(sizeof(_btdesc) == 56 && offsetof(_btdesc, m_lastcount) == 24 && offsetof(_btdesc, m_treemax) == 32 &&
              offsetof(_btdesc, m_free_1) == 36);

// One tree: its root, its length in pages, and 4-byte prefixes of its keys.
struct _btsegtree {
    uint32_t m_rootpageno;
    uint32_t m_treelen;
    uint8_t m_minval[4];
    uint8_t m_maxval[4];
};
static_assert(sizeof(_btsegtree) == 16);

// Page 0.
struct _btmeta {
    IX_HEADER_D header;
    uint32_t m_magic;
    uint32_t m_version;
    uint32_t m_verminor;
    uint32_t m_psize;
    uint32_t m_free;
    uint32_t m_nrecs;
    uint32_t m_flags;
    uint32_t pad1;
    int64_t m_segsize;
    int64_t m_unique_count;
    uint32_t m_data_len;
    uint32_t m_unused[2];
    int32_t m_segp_dircount;
    uint32_t m_segp_directory[BT_DIRSLOTS];
    uint32_t m_placeholder;
    uint32_t pad2;
    // the first _btdesc stands here, at 296
};
static_assert(sizeof(_btmeta) == 296 && offsetof(_btmeta, m_magic) == 24 && offsetof(_btmeta, m_psize) == 36 &&
              offsetof(_btmeta, m_flags) == 48 && offsetof(_btmeta, m_segsize) == 56 &&
              offsetof(_btmeta, m_unique_count) == 64 && offsetof(_btmeta, m_data_len) == 72 &&
              offsetof(_btmeta, m_unused) == 76 && offsetof(_btmeta, m_segp_dircount) == 84 &&
              offsetof(_btmeta, m_segp_directory) == 88 && offsetof(_btmeta, m_placeholder) == 288);
#pragma pack(pop)

constexpr uint32_t BT_METASEGOFF = 296;                 // the meta page's segment descriptor
constexpr uint32_t BT_SEGDESCLEN = 56;
constexpr uint32_t BT_SEGENTLEN = 16;
inline uint32_t bt_metamaxindex(uint32_t psize) { return (psize - BT_METASEGOFF - BT_SEGDESCLEN) / BT_SEGENTLEN; }
inline uint32_t bt_segmaxindex(uint32_t psize) { return (psize - BT_SEGDESCLEN) / BT_SEGENTLEN; }

// Page head of every page but the meta and segment pages, 20 bytes, then linp.
constexpr uint32_t BTDATAOFF = 20;
constexpr uint32_t P_BINTERNAL = 0x01;
constexpr uint32_t P_BLEAF = 0x02;
constexpr uint32_t P_OVERFLOW = 0x04;
constexpr uint32_t P_TYPE = 0x1f;
constexpr uint32_t P_PRESERVE = 0x20;
constexpr uint32_t BINTERNAL_HEAD = 12;                 // ksize, pgno, flags
constexpr uint32_t P_BIGKEY = 0x01;                     // internal key on overflow pages
constexpr uint32_t NOVFLSIZE = 8;                       // pgno and size of an overflow key

// bt_flags and the bits of them kept in m_flags.
constexpr uint32_t B_NODUPS_CURSOR = 0x1;   // cursor set
constexpr uint32_t B_METADIRTY = 0x4;
constexpr uint32_t B_MODIFIED = 0x8;
constexpr uint32_t B_NEEDSWAP = 0x10;
constexpr uint32_t B_RDONLY = 0x20;
constexpr uint32_t B_GLOBAL = 0x200;        // one global tree (header type 4)
constexpr uint32_t B_NOEQUALS = 0x400;      // keys without row number, each once
constexpr uint32_t B_FASTPUT = 0x80000;     // a put was done on the fast path
constexpr uint32_t SAVEMETA = B_NOEQUALS | 0x80;

// Open modes of BTREEINFO.openmode.
constexpr int BT_OREAD = 1;
constexpr int BT_OAPPEND = 2;
constexpr int BT_OCREATE = 4;

// current_op.
constexpr int BT_OPIDLE = 0, BT_OPOPENED = 1, BT_OPAPPEND = 2, BT_OPUPDATE = 4, BT_OPOPENING = 6;

// Results of __bt_open besides 0.
constexpr int BT_EINVAL = -2, BT_ENOMEM = -4, BT_ESHORT = -5, BT_ENOTREE = -7, BT_EVERSION = -8,
              BT_EKEYLONG = -9;
// The index code for a result of __bt_open.
rctype bt_openrc(int rc);

// seq flags.
constexpr int R_CURSOR = 1, R_FIRST = 3, R_LAST = 6, R_NEXT = 7, R_PREV = 9;
// put flags.
constexpr int R_NOOVERWRITE = 8;

// What a caller passes and gets back: bytes and their length.
struct DBT {
    void* data;
    size_t size;
};

using bt_compare_t = int (*)(void* skbp, const void* a, const void* b, size_t len);

struct BTREEINFO {
    uint32_t flags;           // B_NOEQUALS, B_GLOBAL
    uint32_t cachesize;       // bytes; 0 takes the default of the mode
    int maxkeypage;
    int minkeypage;           // 0 takes 2
    uint32_t psize;           // 0 takes BTREE_PAGESIZE
    bt_compare_t compare;     // null: memcmp
    void* prefix;
    int lorder;
    int64_t segsize;          // rows per tree
    int64_t segcount;
    int openmode;             // BT_OREAD, BT_OAPPEND, BT_OCREATE
    int noequals;             // with create: keys occur once
    int options_present;      // 0: the large fixed cache of a bulk job
    uint32_t keylen;          // the key block's column length; 0 at open takes the file's
    uint32_t datalen;         // bytes of data per leaf entry
    void* skbp;               // the key block, handed to compare
};

// ---------------------------------------------------------------- page pool

constexpr uint32_t MPOOL_DIRTY = 0x01;
constexpr uint32_t MPOOL_PINNED = 0x02;
constexpr uint32_t MPOOL_REREAD = 0x08;
constexpr int MPOOL_PAGE_NEW = 4;       // mpool_get: the page is new, not read
constexpr int MPOOL_HASHSIZE = 128;
constexpr int MPOOL_READ = 0, MPOOL_WRITE = 1, MPOOL_CREATE = 2;
constexpr int EPAGESHORT = 666;         // errno of a short page read

// Per cached page; the page's memory follows it, its flags word right before.
struct BKT {
    BKT* hnext;
    BKT* hprev;
    BKT* cnext;
    BKT* cprev;
    void* page;
    pgno_t pgno;
    int32_t pins;
    uint32_t pad;
    uint32_t flags;
};
static_assert(sizeof(BKT) % 8 == 0 && offsetof(BKT, flags) + 4 == sizeof(BKT));

// Called for a page read (pgin) or about to be written (pgout); non-zero
// refuses the page.
using mpool_filter_t = int (*)(void* cookie, pgno_t pgno, void* page);

struct MPOOL {
    BKT freehead;             // buckets no page uses: cnext/cprev
    BKT lru;                  // cnext is the least recently used
    BKT hashtable[MPOOL_HASHSIZE];
    pgno_t curcache;          // buckets allocated
    pgno_t maxcache;
    pgno_t npages;            // pages of the file as the pool sees it
    int64_t max_written;      // highest page written, -1 none
    uint32_t pagesize;
    DA_IDX* fd;
    int writemode;            // MPOOL_READ, MPOOL_WRITE, MPOOL_CREATE
    int sorted_append;
    const char* mmap;         // the mapped file, or null
    mpool_filter_t pgin;
    mpool_filter_t pgout;
    void* pgcookie;
    const char* name;         // for diagnostics
    char* zeropage;
};

MPOOL* mpool_open(const char* key, DA_IDX* fd, uint32_t pagesize, pgno_t maxcache, int writemode,
                  int sorted_append, const char* mmap);
void mpool_filter(MPOOL* mp, mpool_filter_t pgin, mpool_filter_t pgout, void* pgcookie);
void* mpool_new(MPOOL* mp, pgno_t* pgno);
void* mpool_get(MPOOL* mp, pgno_t pgno, int flags);
int mpool_put(MPOOL* mp, void* page, int flags);
void mpool_pin_page(MPOOL* mp, void* page);
void mpool_dirty_page(MPOOL* mp, void* page);
void mpool_releasepage(MPOOL* mp, void* page);
int mpool_read(MPOOL* mp, void* buffer, pgno_t pgno);
int64_t mpool_writenext(MPOOL* mp, const void* buffer);
int mpool_writeagain(MPOOL* mp, const void* buffer, pgno_t pgno);
int mpool_sync(MPOOL* mp);
int mpool_close(MPOOL* mp);
void mpool_setsize(MPOOL* mp, pgno_t npages);
pgno_t mpool_filesize(MPOOL* mp);
int64_t mpool_lastpage(MPOOL* mp);
int mpool_trim_back(MPOOL* mp, pgno_t npages);
void mpool_force_resynch(MPOOL* mp);
void mpool_unpin(MPOOL* mp);
void mpool_growcache(MPOOL* mp, pgno_t npages);

// ---------------------------------------------------------------- tree

struct DB;

struct BT_UPDATE {
    int64_t prevsegno;
    int64_t minseg;
    int64_t maxseg;
    int segp;
    pgno_t meta_pgno;
    uint32_t curindex;
};

// A position in a tree: page and index.
struct EPGNO {
    pgno_t pgno;
    indx_t index;
};

// The fast path's memory of where a caller's last put or get went.
struct BT_PUTINFO {
    pgno_t pgno;
    indx_t index;
    int exact;
};

// A segment page held in memory, with where it lives.
struct BT_SEGP {
    pgno_t pgno;              // 0: inside the meta page
    char* page;               // psize bytes; for the meta page, where its descriptor stands
    int dirty;                // to be written at the next commit
};

constexpr int BT_MAXDEPTH = 48;

struct BTREE {
    MPOOL* bt_mp;
    DB* bt_dbp;
    // search path of the last descent
    EPGNO bt_stack[BT_MAXDEPTH];
    int bt_sp;
    EPGNO bt_cursor;          // seq cursor
    int bt_cursor_pending;    // the next R_NEXT returns the entry at the cursor
    char* bt_rkey;            // returned key and data
    char* bt_rdata;
    char* bt_ovflbuf;         // a key read from overflow pages
    char* bt_ebuf;            // a leaf entry being built
    uint32_t bt_psize;
    indx_t bt_ovflsize;
    int bt_minkeypage;
    uint32_t bt_keylen;       // the key block's length
    uint32_t bt_cmplen;       // bytes compared: with the row number unless B_NOEQUALS
    uint32_t bt_lsize;        // leaf entry, rounded to 4
    bt_compare_t bt_cmp;
    uint32_t bt_nrecs;
    uint32_t bt_flags;
    // the additions of this tree
    DA_IDX* bt_fd;
    void* skbp;
    int bt_openmode;
    int bt_open_in_progress;
    pgno_t bt_root;
    pgno_t bt_treelen;        // pages of the tree in hand; 0 while it grows at the file's end
    pgno_t bt_prepsize;       // pages of the file when the append began
    pgno_t bt_oldroot;
    pgno_t bt_oldlen;
    int64_t bt_segsize;
    int64_t bt_segcount;      // trees entered
    int64_t bt_curtree;       // tree in hand
    int64_t bt_lastcount;     // rows in the tree in hand
    uint32_t bt_curindex;
    int bt_dircount;
    int bt_nroot;             // a root made and not yet entered
    int bt_displaced_meta;
    int bt_last_is_meta;
    int bt_inner_update;
    int64_t bt_last_committed_obs;
    int64_t bt_unique_count;
    int bt_gone_out;
    int bt_appflag;
    uint32_t bt_bigflags;
    const char* bt_mmap;
    uint32_t bt_data_len;
    void* bt_fastpath_h;      // leaf left pinned by the fast path
    EPGNO bt_bcursor_put;
    int bt_extended_key;
    uint8_t bt_filemax[4], bt_filemin[4], bt_metamax[4], bt_metamin[4], bt_segmax[4], bt_segmin[4];
    int64_t bt_lastpage;
    pgno_t bt_ncache;
    pgno_t bt_grow_ncache;
    BT_UPDATE upd;
    char* metapage;           // page 0, psize bytes
    char* segpage;            // the segment page in hand (may be metapage + 296 - its place)
    char* oldsegp;
    char* segoverflow1;
    char* segoverflow2;
    BT_SEGP* bt_segpages;     // all segment pages, in order; [0] is the meta page's
    int bt_nsegpalloc;
    int bt_nsegpages;
    IX_HEADER_D header;
    // diagnostics of the last failure
    pgno_t bt_errpage;
    char bt_errtext[160];
    const char* bt_fname;
};

struct DB {
    rctype (*abort)(DB* dbp);
    rctype (*close)(DB* dbp, int64_t rollback, void* stats, int fullclose);
    rctype (*del)(DB* dbp, const DBT* key, const DBT* data, int flags);
    rctype (*get)(DB* dbp, const DBT* key, DBT* data, int flags);
    rctype (*range)(DB* dbp, const void* key, size_t len);
    rctype (*lock)(DB* dbp, int locktype);
    rctype (*put)(DB* dbp, const DBT* key, const DBT* data, int flags);
    rctype (*seq)(DB* dbp, DBT* key, DBT* data, int flags);
    rctype (*sync)(DB* dbp, int flags);
    DA_IDX* (*fd)(DB* dbp);
    BTREE* internal;
    int64_t next_append;
    int current_op;
    DA_IDX* file_handle;
    int getpnt_init;
    int getpnt_term;
    void* hival;
    int hicomp;
    int hilen;
    void* loval;
    int locomp;
    int lolen;
    int extended_key;
    int extended_compare;
    int page_split;
    int options_present;
    int64_t numobs_returned;
    int64_t ds_numobs;        // rows of the table, set by the caller before a stop
    int create;
    char hibuf[64];
    char lobuf[64];
};

// What a close reports.
struct BT_STATS {
    int64_t nrecs;
    int64_t unique_count;
    int64_t ntrees;
    int64_t npages;
    uint32_t psize;
};

// Open, in two phases: partno 0 makes the handle, partno 1 reads or makes
// the meta page (under the caller's lock). Results: 0 or BT_Exxx.
int __bt_open(DA_IDX* if_hdl, int flags, const BTREEINFO* openinfo, IX_HEADER_D* header, DB** db, int partno);
rctype __bt_close(DB* dbp, int64_t rollback, void* stats, int fullclose);
rctype __bt_abort(DB* dbp);
rctype __bt_lock(DB* dbp, int locktype);
rctype __bt_reread(DB* db);
rctype __bt_get(DB* dbp, const DBT* key, DBT* data, int flags);
rctype __bt_put(DB* dbp, const DBT* key, const DBT* data, int flags);
rctype __bt_delete(DB* dbp, const DBT* key, const DBT* data, int flags);
rctype __bt_seq(DB* dbp, DBT* key, DBT* data, int flags);
rctype __bt_sync(DB* dbp, int flags);
rctype __bt_range(DB* dbp, const void* key, size_t len);
rctype __bt_hyget(DB* dbp, const DBT* key, DBT* data, BT_PUTINFO* putinfop);
rctype __bt_hyput(DB* dbp, const DBT* key, const DBT* data, BT_PUTINFO* putinfop);

// The append life cycle.
rctype __bt_meta_prep(DB* db);
rctype __bt_meta_append(DB* db);
rctype __bt_meta_addtree(DB* dbp);
rctype __bt_stop_append(DB* db, int rollback);
rctype __bt_update_commit(DB* db);
rctype __bt_hard_rollback(DB* db, int64_t rollback);
rctype __bt_set_commit(DB* db);
// The tree in hand takes the row obsnum (counted in its tree), in row order.
rctype __bt_append_row(DB* db, int64_t obsnum);
// An update in place of tree segno: it is moved to the file's end to grow.
rctype __bt_set_update(DB* db, int64_t segno);

// A private read handle on the tree that holds row obsnum.
rctype __bt_prep_get(DB* dbp, DB** newdbp, int64_t obsnum, uint32_t* lenptr, int64_t* obsperseg);
rctype __bt_term_get(DB* dbp);
// The same by tree number; *root and *len of it.
rctype __bt_tree(DB* dbp, int64_t treeno, pgno_t* root, pgno_t* len);
int64_t __bt_ntrees(DB* dbp);
// Sets the tree a handle works on (read handles).
rctype __bt_settree(DB* dbp, int64_t treeno);

rctype __bt_load_desc(DB* dbp);
int64_t __bt_lastpage(BTREE* t, int segp);
rctype __bt_minmax(BTREE* t, uint8_t* minp, uint8_t* maxp);
rctype __bt_flush(DB* dbp);
rctype __bt_flush_internal(BTREE* t);
void __bt_decrement_unique_count(BTREE* t);

// ---------------------------------------------------------------- inside the tree

// Page and entry access; every field through memcpy, since pages need no alignment.
inline uint32_t bt_get32(const void* p) {
    uint32_t v;
    __builtin_memcpy(&v, p, 4);
    return v;
}
inline void bt_put32(void* p, uint32_t v) { __builtin_memcpy(p, &v, 4); }
inline uint16_t bt_get16(const void* p) {
    uint16_t v;
    __builtin_memcpy(&v, p, 2);
    return v;
}
inline void bt_put16(void* p, uint16_t v) { __builtin_memcpy(p, &v, 2); }
inline pgno_t pg_pgno(const void* h) { return bt_get32(h); }
inline pgno_t pg_prev(const void* h) { return bt_get32(static_cast<const char*>(h) + 4); }
inline pgno_t pg_next(const void* h) { return bt_get32(static_cast<const char*>(h) + 8); }
inline uint32_t pg_flags(const void* h) { return bt_get32(static_cast<const char*>(h) + 12); }
inline indx_t pg_lower(const void* h) { return bt_get16(static_cast<const char*>(h) + 16); }
inline indx_t pg_upper(const void* h) { return bt_get16(static_cast<const char*>(h) + 18); }
inline indx_t pg_linp(const void* h, uint32_t i) { return bt_get16(static_cast<const char*>(h) + BTDATAOFF + 2 * i); }
inline void pg_setpgno(void* h, pgno_t v) { bt_put32(h, v); }
inline void pg_setprev(void* h, pgno_t v) { bt_put32(static_cast<char*>(h) + 4, v); }
inline void pg_setnext(void* h, pgno_t v) { bt_put32(static_cast<char*>(h) + 8, v); }
inline void pg_setflags(void* h, uint32_t v) { bt_put32(static_cast<char*>(h) + 12, v); }
inline void pg_setlower(void* h, indx_t v) { bt_put16(static_cast<char*>(h) + 16, v); }
inline void pg_setupper(void* h, indx_t v) { bt_put16(static_cast<char*>(h) + 18, v); }
inline void pg_setlinp(void* h, uint32_t i, indx_t v) { bt_put16(static_cast<char*>(h) + BTDATAOFF + 2 * i, v); }
inline uint32_t pg_nentries(const void* h) { return (pg_lower(h) - BTDATAOFF) / 2; }
inline char* pg_entry(void* h, uint32_t i) { return static_cast<char*>(h) + pg_linp(h, i); }
inline const char* pg_entry(const void* h, uint32_t i) { return static_cast<const char*>(h) + pg_linp(h, i); }
inline uint32_t bt_align4(uint32_t n) { return (n + 3) & ~3u; }
// Where a new page's entries start: a 16-bit offset must hold it.
inline indx_t bt_pagetop(uint32_t psize) { return static_cast<indx_t>(psize < 65532 ? psize : 65532); }
inline uint32_t bt_inlen(uint32_t ksize) { return bt_align4(BINTERNAL_HEAD + ksize); }

// Records the failure (page and words) for the caller and the log; returns code.
rctype bt_fail(BTREE* t, pgno_t pgno, rctype code, const char* what);
// Checks a page against the rules of its kind: offsets inside it, entries
// within it, links within the file. Zero when it may be used.
int bt_checkpage(BTREE* t, pgno_t pgno, const void* page, const char** why);
// Byte order of a page of a file made on the other order.
void bt_swappage(BTREE* t, void* page);
void bt_swapmeta(char* meta);
void bt_swapsegp(char* segp, uint32_t maxentries);
int bt_pgin(void* cookie, pgno_t pgno, void* page);
// A page of the tree in hand, checked and pinned; null after bt_fail.
void* bt_getpage(BTREE* t, pgno_t pgno, rctype code);

// Key comparison of a search key with entry i of a page: leaf entries by
// their key (and, unless B_NOEQUALS, their data); internal entries by their
// stored key. data may be null: then only the key counts, and a search key
// equal in it stands before every entry with that key.
int __bt_cmp(BTREE* t, const void* key, const void* data, const void* page, uint32_t i, pgno_t pgno, int* err);
// Descends the tree in hand to the leaf where key belongs; the leaf comes
// back pinned with the index and whether it was found.
rctype __bt_search(BTREE* t, const void* key, const void* data, void** pagep, indx_t* indexp, int* exactp);
rctype __bt_split(BTREE* t, void* leaf, const void* entry, uint32_t elen, indx_t skip);
rctype __bt_newroot(BTREE* t, pgno_t* root);
rctype __bt_lput(BTREE* t, void* page, indx_t index, const void* key, const void* data);
rctype __ovfl_put(BTREE* t, const void* bytes, uint32_t size, pgno_t* pg);
rctype __ovfl_get(BTREE* t, pgno_t pg, uint32_t size, char* out);
// The key stored in internal entry i (read from overflow pages when there).
rctype __bt_ikey(BTREE* t, const void* page, uint32_t i, const char** key, uint32_t* ksize, char* buf);
// Writes the meta page (and the segment page in hand, when dirty).
rctype bt_meta(BTREE* t);
rctype bt_writesegp(BTREE* t, int idx);
_btdesc* bt_desc(BTREE* t, int idx);
_btsegtree* bt_entry(BTREE* t, int idx, uint32_t i);
uint32_t bt_segp_maxindex(BTREE* t, int idx);
// Row number stored in an extended-key leaf entry's data (big-endian).
int64_t bt_rowof(const void* data);
void bt_putrow(void* data, int64_t row);

}  // namespace vrta
