// Fixed blocks through an exit: block vbn lies at vbn x iomaxbuf in the DPF,
// the last one possibly short. Only the exit's conversion stands between
// the rows and the file; the cursor itself is the shared block cursor.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hs/hs.h"
#include "sda/daiocb.h"
#include "sda/darc.h"
#include "sda/daxc.h"

namespace vrta {

struct DA_FBCB : DA_BKCB {
    int flags;
    char* iobuf;
    int32_t iobufsize;
};

namespace {

[[nodiscard]] rctype needio(DA_FCB* fcb, DA_FBCB* fb) {
    int32_t im = fcb->xcext ? fcb->xcext->iomaxbuf : 0;
    if (im <= 0) return DA_INTERNAL;
    if (fb->iobufsize >= im) return 0;
    free(fb->iobuf);
    fb->iobuf = static_cast<char*>(malloc(im + 16));
    fb->iobufsize = fb->iobuf ? im : 0;
    return fb->iobuf ? 0 : DA_NOMEM;
}

[[nodiscard]] rctype fgetblock(DA_FCB* fcb, void*, int64_t vbn, char* raw, int32_t rawroom, int32_t* rawlen) {
    auto* fb = fcb->fbcb;
    rctype rc = needio(fcb, fb);
    if (rc < 0) return rc;
    int32_t im = fcb->xcext->iomaxbuf;
    da_off_t off = vbn * im;
    da_off_t fsize = *fcb->dffd->filesize;
    if (vbn < 0 || off >= fsize) return DA_EOF;
    long len = static_cast<long>(std::min<da_off_t>(im, fsize - off));
    long got = 0;
    rc = fcb->dffd->fdread(fcb->dffd, fb->iobuf, len, off, &got);
    if (rc < 0) return rc;
    int32_t rl = rawroom;
    rc = daxcunconvert(fcb->xcext, vbn, fb->iobuf, static_cast<int>(got), raw, &rl);
    if (rc < 0) return rc;
    if (fb->obslen <= 0 || rl % fb->obslen != 0) {
        hsprint("Bad unconvert on file %s: VBN=%lld Obslen=%d Blocklen=%d\n", fcb->name, static_cast<long long>(vbn),
                fb->obslen, rl);
        return DA_INTERNAL;
    }
    *rawlen = rl;
    return 0;
}

[[nodiscard]] rctype fputblock(DA_FCB* fcb, DA_BLOCK* blk) {
    auto* fb = fcb->fbcb;
    if (blk->numobs <= 0) return 0;
    rctype rc = needio(fcb, fb);
    if (rc < 0) return rc;
    int32_t im = fcb->xcext->iomaxbuf;
    int iolen = 0;
    rc = daxcconvert(fcb->xcext, blk->vbn, blk->blockbuf, blk->numobs * fb->obslen, fb->iobuf, &iolen, false);
    if (rc < 0) return rc;
    if (iolen > im) return DA_CONVBIG;
    da_off_t off = blk->vbn * im;
    // An exit whose output is shorter than iomaxbuf leaves a gap behind a
    // short block; the file is grown over it rather than written with a hole.
    if (off > *fcb->dffd->filesize) {
        da_off_t ns = off;
        rc = fcb->dffd->fdcntl(fcb->dffd, DA_FDGROW, &ns);
        if (rc < 0) return rc;
    }
    da_off_t end = *fcb->dffd->filesize;
    rc = fcb->dffd->fdwrite(fcb->dffd, fb->iobuf, iolen, &off);
    if (rc < 0) return rc;
    blk->blockOffset = off;
    // A short last block that grew is read whole up to the next block: it
    // must reach the disk before any block behind it can, or a power loss
    // could leave its old bytes followed by a gap, read as one block.
    if (off < end && off + iolen > end) return fcb->dffd->fdcntl(fcb->dffd, DA_FDDATASYNC, nullptr);
    return 0;
}

const DA_BKOPS fops = {fgetblock, fputblock};

void setmax(DA_FCB* fcb, DA_FBCB* fb) {
    hs_obsno_t n = fcb->xoe.numobs;
    int32_t bf = fcb->xoe.blockfactor;
    fb->maxvbn = (n < 1 || bf <= 0) ? DA_NOVBN : (n - 1) / bf;
}

[[nodiscard]] rctype newfbcb(DA_FCB* fcb) {
    if (fcb->fbcb) return 0;
    auto* fb = static_cast<DA_FBCB*>(calloc(1, sizeof(DA_FBCB)));
    if (!fb) return DA_NOMEM;
    rctype rc = dabkinit(fcb, fb, &fops);
    if (rc < 0) {
        free(fb);
        return rc;
    }
    fcb->fbcb = fb;
    return 0;
}

}  // namespace

[[nodiscard]] rctype daifbcb(DA_FCB* fcb) { return newfbcb(fcb); }

[[nodiscard]] rctype dalfbcb(DA_FCB* fcb) {
    rctype rc = newfbcb(fcb);
    if (rc < 0) return rc;
    setmax(fcb, fcb->fbcb);
    return 0;
}

[[nodiscard]] rctype daflfbcb(DA_FCB* fcb) {
    DA_FBCB* fb = fcb->fbcb;
    if (!fb) return 0;
    mutex_lock(&fb->lock);
    rctype rc = dabkflush(fcb, fb, "daflfbcb");
    mutex_unlock(&fb->lock);
    if (rc < 0) return rc;
    if (fcb->flags & DA_FCBXOE) {
        rc = dawrfcbxoe(fcb);
        if (rc < 0) {
            hsprint("daflfbcb: Unable to flush XOEHEAD on %s: Reason=%s\n", fcb->name, hsstrer(rc));
            return rc;
        }
    }
    return 0;
}

[[nodiscard]] rctype daffbcb(DA_FCB* fcb) {
    DA_FBCB* fb = fcb->fbcb;
    if (!fb) return 0;
    rctype rc = 0;
    if (fcb->mode != DA_OMINPUT) rc = daflfbcb(fcb);
    dabkfree(fb);
    free(fb->iobuf);
    free(fb);
    fcb->fbcb = nullptr;
    return rc;
}

[[nodiscard]] rctype darffbcb(DA_FCB* fcb) {
    DA_FBCB* fb = fcb->fbcb;
    if (!fb) return 0;
    mutex_lock(&fb->lock);
    setmax(fcb, fb);
    // Blocks held from before another process changed the table are stale.
    dabkstale(fb);
    mutex_unlock(&fb->lock);
    return 0;
}

[[nodiscard]] rctype dafgioc(DA_FID* fp, int iom, DA_IOCB** iocb) {
    DA_FCB* fcb = fcbof(fp);
    if (!fcb->fbcb || !fcb->xcext) return DA_INTERNAL;
    return dabkgioc(fp, iom, fcb->fbcb, nullptr, nullptr, iocb);
}

}  // namespace vrta
