// The module's entry: brings up or imports the runtime, then hands the host
// the engine vector, the attribute table and an engine id. hpdterm undoes it.
#include <cstdlib>
#include <cstring>

#include "eng/hpd.h"
#include "eng/hpdc.h"
#include "eng/yxsoc.h"
#include "hs/hs.h"
#include "option/op.h"
#include "sda/da.h"
#include "sda/dafd.h"
#include "ssup/vv.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrta {

HPDECB* HPDGCB = nullptr;
const char* HPDBINDADDR = nullptr;
int VRTA_BACKUP = -1;
int VRTA_RESTORE = -1;

// Field order: file_acc rec_acc key_acc byte_acc acc_ordr hdr_acc dict_acc
// dta_typ concur integrity authoriz dat_modl rel_op max_physname dir_acc
// pars_exit xl_acc loading options encoding_cei locale growth.
const XHEATTR hpdattr = {23, 15, 14, 1, 295, 127, 503, 3, 0, 0, 9, 0, 0, 0, 1, 1, 0, 1, 38, 0, {}, 0};
const XHEATTR hpdsqlattr = hpdattr;

namespace {

rctype hpdstart(int argc, void** argv) {
    // Step 1 reads argv[4] whatever argc says: the anchor slot predates argc.
    if (argv[VRTAENG_VVGCB]) {
        vvimport(argv[VRTAENG_VVGCB]);
    } else if (vvinit() != 0) {
        // vvinit has printed which layer failed; nothing above can work.
        return 1;
    }

    // A slot that argc covers but the host left null is built as if absent.
    if (argc >= 6) opstgbl(argv[VRTAENG_OPTS]);
    if (!opgtgbl()) opinitgbl();
    // The host's storage blocks were started by its own copy of the storage
    // layer; ours take their contents. Without them the storage layer starts
    // itself (dainit) at its first use.
    if (argc >= 7 && argv[VRTAENG_DAGCB]) std::memcpy(&dagcb, argv[VRTAENG_DAGCB], sizeof dagcb);
    if (argc >= 8 && argv[VRTAENG_DAIOGCB]) std::memcpy(&daiogcb, argv[VRTAENG_DAIOGCB], sizeof daiogcb);

    if (argc >= 9 && argv[VRTAENG_HSGCB]) {
        HSGCB = static_cast<HS_GCB*>(argv[VRTAENG_HSGCB]);
    } else if (hsgblinit() != 0) {
        hsprint("Unable to initialize HS subsystem");
        return 1;
    }

    if (argc >= 10 && argv[VRTAENG_YKGCB])
        YKGCB = static_cast<YPMSG_GCB*>(argv[VRTAENG_YKGCB]);
    else
        xkinit();

    auto* ecb = static_cast<HPDECB*>(xmalloc(XM_THREADPOOL, sizeof(HPDECB), XM_ZERO));
    if (!ecb) return HP_RC_NOMEM;
    auto* tbl = static_cast<HPD_ENGTBL*>(xmalloc(XM_THREADPOOL, sizeof(HPD_ENGTBL), XM_ZERO));
    if (!tbl) {
        xmfree(XM_THREADPOOL, ecb, sizeof(HPDECB));  // nothing refers to it yet
        return HP_RC_NOMEM;
    }

    std::memcpy(ecb->dbihdr.eng_name, "KORVRTA ", 8);
    std::memcpy(ecb->dbihdr.release, HPD_RELEASE, 4);
    HPDGCB = ecb;
    VRTA_BACKUP = -1;
    VRTA_RESTORE = -1;
    HPDBINDADDR = std::getenv("VRTABINDADDR");
    std::memcpy(ecb->id, "HPDE", 4);

    // A failed fill leaves the blocks allocated and argv[0..2] untouched: the
    // host treats the engine as unusable.
    if (rctype rc = hpdfill(tbl); rc != 0) return rc;

    argv[VRTAENG_ENGTBL] = tbl;
    argv[VRTAENG_ATTR] = const_cast<XHEATTR*>(&hpdattr);
    argv[VRTAENG_ID] = ecb;
    return 0;
}

}  // namespace
}  // namespace vrta

extern "C" __attribute__((visibility("default"))) int vrtaeng(int argc, void** argv) {
    if (!argv || !argv[VRTAENG_RC]) return 1;  // nowhere to report: not a host's call
    rctype rc = vrta::hpdstart(argc, argv);
    *static_cast<int*>(argv[VRTAENG_RC]) = rc;
    return rc;
}

extern "C" rctype hpdterm(void* engid) {
    using namespace vrta;
    auto* ecb = static_cast<HPDECB*>(engid);
    // No farewell to the servers and no domain is closed: closing those
    // first is the host's part of the calling order.
    for (HPDSERV* s = ecb->serv; s;) {
        HPDSERV* next = s->next;
        if (s->sopen) hpdsfree(s);
        s = next;
    }
    if (HPDGCB == ecb) HPDGCB = nullptr;
    xmfree(XM_THREADPOOL, ecb, sizeof(HPDECB));
    return 0;
}

extern "C" __attribute__((visibility("default"))) int vrtarctext(int rc, char* buf, int buflen) {
    if (!buf || buflen <= 0) return 0;
    int n = vrta::xprstr(buf, rc, buflen - 1);
    if (n < 0) n = 0;
    if (n > buflen - 1) n = buflen - 1;
    // The printer pads with blanks and may end with a line feed.
    while (n > 0 && (buf[n - 1] == ' ' || buf[n - 1] == '\n')) --n;
    buf[n] = 0;
    return n;
}
