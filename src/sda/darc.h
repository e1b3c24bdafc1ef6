// Return codes of the storage layer (sda). Errors are 0x800002xx; the small
// positive numbers are warnings a caller may choose to carry on after.
// Keep this a flat list: one name per code, sorted by value.
#pragma once

#include "ssup/vrtadef.h"

namespace vrta {

// Warnings and notes.
constexpr rctype DA_INUSE       = 514;         // index still in use
constexpr rctype DA_IDXREBUILD  = 515;         // index needs rebuild
constexpr rctype DA_EOF         = 518;         // end of file / end of data
constexpr rctype DA_IDXCHANGED  = 519;         // index file changed by another handle since
constexpr rctype DA_PARTMISS    = 521;         // a partition file is missing
constexpr rctype DA_REVDIFF     = 525;         // revision of a file differs from the MDF's
constexpr rctype DA_WORKPATHBAD = 517;         // workpath failed validation, default used
constexpr rctype DA_PATHSKEPT   = 526;         // paths of a locked library were not changed
constexpr rctype DA_SORTLOST    = 605;         // sort order not kept
constexpr rctype DA_NOMOREROWS  = 1284;        // no more rows
constexpr rctype DA_NEWDIR      = 0x20000204;  // note: directory was created

// Errors.
constexpr rctype DA_NOCDFSLOT   = static_cast<rctype>(0x80000202u);  // cluster has no free member slot
constexpr rctype DA_READEOF     = static_cast<rctype>(0x80000206u);  // read past end, reported as an error
constexpr rctype DA_BADOFFSET   = static_cast<rctype>(0x8000020fu);  // offset out of range
constexpr rctype DA_BADQUOTE    = static_cast<rctype>(0x80000210u);  // unclosed quote in a path list
constexpr rctype DA_BADVERSION  = static_cast<rctype>(0x80000212u);  // version word not understood
constexpr rctype DA_INTERNAL    = static_cast<rctype>(0x80000216u);  // internal consistency failure
constexpr rctype DA_EXISTS      = static_cast<rctype>(0x8000021cu);  // file or member exists
constexpr rctype DA_STATELOST   = static_cast<rctype>(0x8000021du);  // file or lock state lost, must close
constexpr rctype DA_FIBFULL     = static_cast<rctype>(0x8000021eu);  // direct FIB has no room for a partition
constexpr rctype DA_NOFILES     = static_cast<rctype>(0x8000021fu);  // too many open files
constexpr rctype DA_BADARG      = static_cast<rctype>(0x80000220u);  // bad argument or call
constexpr rctype DA_BADLIBFILE  = static_cast<rctype>(0x80000221u);  // library file header not understood
constexpr rctype DA_FCNTLFAIL   = static_cast<rctype>(0x80000222u);  // other fcntl failure
constexpr rctype DA_MMAPFAIL    = static_cast<rctype>(0x80000223u);  // memory mapping failed
constexpr rctype DA_ACCESS      = static_cast<rctype>(0x80000224u);  // access denied
constexpr rctype DA_NOTFOUND    = static_cast<rctype>(0x80000225u);  // file, member or index not found
constexpr rctype DA_NOMEM       = static_cast<rctype>(0x80000227u);  // out of memory
constexpr rctype DA_NOSPACE     = static_cast<rctype>(0x80000229u);  // no space on any path (HSENOSPC)
constexpr rctype DA_NOCOMPRESS  = static_cast<rctype>(0x8000022au);  // exit cannot compress
constexpr rctype DA_NOTDIR      = static_cast<rctype>(0x8000022bu);  // path is not a directory
constexpr rctype DA_NOENCRYPT   = static_cast<rctype>(0x8000022cu);  // exit cannot encrypt
constexpr rctype DA_BADCNTL     = static_cast<rctype>(0x8000022eu);  // bad control command
constexpr rctype DA_TOOLONG     = static_cast<rctype>(0x8000022fu);  // record longer than the reader's buffer
constexpr rctype DA_RDLOCKED    = static_cast<rctype>(0x80000230u);  // read lock conflict in another process
constexpr rctype DA_LOCKCONF    = static_cast<rctype>(0x80000231u);  // conflict with another thread or mode here
constexpr rctype DA_READFAIL    = static_cast<rctype>(0x80000232u);  // read failed
constexpr rctype DA_BADSEMTYPE  = static_cast<rctype>(0x80000235u);  // unknown semtype
constexpr rctype DA_SHORTREAD   = static_cast<rctype>(0x80000237u);  // short read
constexpr rctype DA_NOTDELETED  = static_cast<rctype>(0x8000023bu);  // write on the wrong kind of row
constexpr rctype DA_WRITEFAIL   = static_cast<rctype>(0x8000023cu);  // write failed
constexpr rctype DA_WRLOCKED    = static_cast<rctype>(0x8000023du);  // write lock conflict in another process
constexpr rctype DA_MODECONF    = static_cast<rctype>(0x8000023eu);  // mode conflict in this process
constexpr rctype DA_WRONGKIND   = static_cast<rctype>(0x8000023fu);  // wrong kind of table or open mode
constexpr rctype DA_BADKEY      = static_cast<rctype>(0x80000240u);  // wrong encryption key
constexpr rctype DA_CONVFAIL    = static_cast<rctype>(0x80000241u);  // exit convert failed
constexpr rctype DA_NOEXIT      = static_cast<rctype>(0x80000242u);  // exit module not loadable
constexpr rctype DA_EXITREFUSED = static_cast<rctype>(0x80000243u);  // exit open hook refused
constexpr rctype DA_CONVBIG     = static_cast<rctype>(0x80000244u);  // converted block above iomaxbuf
constexpr rctype DA_UNCONVFAIL  = static_cast<rctype>(0x80000245u);  // exit unconvert failed
constexpr rctype DA_NOLOCKS     = static_cast<rctype>(0x80000246u);  // no record locks available
constexpr rctype DA_LIBSHORT    = static_cast<rctype>(0x80000249u);  // short read of the library file
constexpr rctype DA_DATEBEFORE  = static_cast<rctype>(0x8000024bu);  // date before the table's first
constexpr rctype DA_BADGENUTIL  = static_cast<rctype>(0x8000024eu);  // generation request in util mode
constexpr rctype DA_BADGEN      = static_cast<rctype>(0x8000024fu);  // bad generation number
constexpr rctype DA_SYSERR      = static_cast<rctype>(0x80000252u);  // other system error
constexpr rctype DA_NOENCODING  = static_cast<rctype>(0x80000258u);  // no encoding given
constexpr rctype DA_NOLOCALE    = static_cast<rctype>(0x80000259u);  // no locale given
constexpr rctype DA_INCOMPAT    = static_cast<rctype>(0x8000025au);  // cluster members incompatible
constexpr rctype DA_PASTEND     = static_cast<rctype>(0x8000025bu);  // position past the end of data
constexpr rctype DA_DYNCONF     = static_cast<rctype>(0x8000025cu);  // dynamic and plain openers conflict
constexpr rctype DA_NODPF       = static_cast<rctype>(0x8000025eu);  // table has no data file
constexpr rctype DA_HASCONST    = static_cast<rctype>(0x8000025fu);  // table already has a constraint
constexpr rctype DA_INCLUSTER   = static_cast<rctype>(0x80000263u);  // member is a cluster or in use
constexpr rctype DA_RWFAIL      = static_cast<rctype>(0x8000038bu);  // readers-writer lock call failed

// Sets a code aside on purpose: clean-up after an earlier failure, where
// the first code is the one to report, or a call that cannot fail here.
inline void daignore(rctype) {}

} // namespace vrta
