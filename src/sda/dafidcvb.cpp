// Column views: an opener that drops some variables sees a table without
// them; openers that drop the same ones share one view.
#include <cstdlib>
#include <cstring>

#include "sda/dafid.h"
#include "sda/darc.h"

namespace vrta {

[[nodiscard]] rctype dagetcvb(DA_CVB** cvblist, DA_FID* reffid, int ndrop, const int32_t* dnvar0, DA_CVB** newcvb) {
    DA_FCB* fcb = fcbof(reffid);
    int32_t nvar = fcb->xoe.nvar;
    if (ndrop <= 0 || ndrop >= nvar || !dnvar0) return DA_BADARG;
    for (int i = 0; i < ndrop; ++i)
        if (dnvar0[i] < 1 || dnvar0[i] > nvar) return DA_BADARG;
    for (DA_CVB* c = *cvblist; c; c = c->next)
        if (c->ndrop == ndrop && memcmp(c->dnvar0, dnvar0, sizeof(int32_t) * ndrop) == 0) {
            c->refcount++;
            *newcvb = c;
            return 0;
        }
    auto dropped = [&](int32_t v) {
        for (int i = 0; i < ndrop; ++i)
            if (dnvar0[i] == v) return true;
        return false;
    };
    int32_t keep = 0;
    for (int32_t v = 1; v <= nvar; ++v)
        if (!dropped(v)) ++keep;
    if (keep <= 0) return DA_BADARG;
    // One allocation: the block, the dropped numbers, the kept columns.
    size_t sz = sizeof(DA_CVB) + sizeof(int32_t) * ndrop;
    sz = (sz + 15) & ~size_t{15};
    size_t varoff = sz;
    sz += sizeof(DA_NAMESTR) * keep;
    auto* mem = static_cast<char*>(calloc(1, sz));
    if (!mem) return DA_NOMEM;
    auto* c = reinterpret_cast<DA_CVB*>(mem);
    c->dnvar0 = reinterpret_cast<int32_t*>(mem + sizeof(DA_CVB));
    memcpy(c->dnvar0, dnvar0, sizeof(int32_t) * ndrop);
    c->ndrop = ndrop;
    c->reffid = reffid;
    c->refcount = 1;
    c->vars = reinterpret_cast<DA_NAMESTR*>(mem + varoff);
    int32_t k = 0;
    for (int32_t v = 1; v <= nvar; ++v)
        if (!dropped(v)) c->vars[k++] = fcb->vars[v - 1];  // npos and nvar0 unchanged: rows keep their layout
    c->numvar = keep;
    c->numindex = 0;  // no index of this layer survives a view yet
    c->next = *cvblist;
    *cvblist = c;
    *newcvb = c;
    return 0;
}

void dafreecvb(DA_CVB** cvblist, DA_CVB* cvb) {
    if (--cvb->refcount > 0) return;
    for (DA_CVB** pp = cvblist; *pp; pp = &(*pp)->next)
        if (*pp == cvb) {
            *pp = cvb->next;
            break;
        }
    free(cvb);
}

[[nodiscard]] rctype dadrvar(DA_FID* f, int ndrop, const int32_t* dnvar0) {
    DA_FIDP* fp = fidpof(f);
    if (fp->cvb) return DA_BADARG;
    DA_CVB* c = nullptr;
    rctype rc = dagetcvb(&fp->fcb->cvblist, f, ndrop, dnvar0, &c);
    if (rc < 0) return rc;
    fp->cvb = c;
    fp->numvar = c->numvar;
    fp->vars = c->vars;
    fp->numindex = c->numindex;
    fp->indexes = c->indexes;
    fp->keytab = c->keytab;
    return 0;
}

}  // namespace vrta
