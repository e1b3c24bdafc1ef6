// Reading a hybrid index value's segments: the record's own one segment, or
// the chunks chained back from the newest, checked as they are read so that
// a damaged file gives a code, never a walk without end.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "ix/ixhy.h"

namespace vrta {

rctype ixhy_value_segv(DA_IDX* hbx, const IXH_HEADER_D* hdr, const IXHYBRID_BTDATA_D* bt,
                       std::vector<IXH_ST_ENTRY_D>* out) {
    out->clear();
    int type = ixbt_bm_type(*bt);
    if (type == Bm_Deleted) return 0;
    int64_t segsize = hdr->common.segment_size;
    if (ixbt_one_segment(*bt)) {
        IXH_ST_ENTRY_D e{};
        ixste_set(e, ixbt_high_segno(*bt), type);
        e.data = type == Bm_One_Bit_Set ? bt->obs_data : bt->seg_data;
        e.bm_offset = type == Bm_One_Bit_Set ? 0 : bt->data_loc;
        out->push_back(e);
        return 0;
    }
    int64_t want = bt->seg_data;
    if (want < 1 || want > IXH_MAXSEGS) return IX_INCONSIST;
    // Chunks come newest first, each rising within: they are read one after
    // the other and their order turned round at the end.
    int64_t nchunks = 0;
    int32_t below = ixbt_high_segno(*bt) + 1;
    for (da_off_t at = bt->data_loc; at != 0; ++nchunks) {
        IXH_SEGCHUNK_D c;
        int64_t have = static_cast<int64_t>(out->size());
        if (at < static_cast<da_off_t>(sizeof(IXH_HEADER_D)) || Read_Bitmap(hbx, at, sizeof c, &c) < 0)
            return IX_READFAIL;
        if (c.n_segs < 1 || c.n_segs > c.max_segs || have + c.n_segs > want || c.high_segno >= below ||
            c.low_segno > c.high_segno)
            return IX_INCONSIST;
        out->resize(static_cast<size_t>(have + c.n_segs));
        IXH_ST_ENTRY_D* ents = out->data() + have;
        if (Read_Bitmap(hbx, at + static_cast<da_off_t>(sizeof c), c.n_segs * static_cast<int64_t>(sizeof *ents),
                        ents) < 0)
            return IX_READFAIL;
        int32_t prev = -1;
        for (int32_t i = 0; i < c.n_segs; ++i) {
            const IXH_ST_ENTRY_D& e = ents[i];
            int32_t s = ixste_seg_no(e);
            int t = ixste_bm_type(e);
            bool stored = t == Bm_Not_Compressed || t == Bm_Compression_1 || t == Bm_Bit_List;
            if (s <= prev || s < c.low_segno || s > c.high_segno || (!stored && t != Bm_One_Bit_Set) ||
                (stored && (e.data <= 0 || e.bm_offset <= 0)) ||
                (t == Bm_One_Bit_Set && (e.data <= static_cast<int64_t>(s) * segsize ||
                                         e.data > static_cast<int64_t>(s + 1) * segsize)))
                return IX_INCONSIST;
            prev = s;
        }
        below = c.low_segno;
        at = c.next;
    }
    if (static_cast<int64_t>(out->size()) != want) return IX_INCONSIST;
    if (nchunks > 1) {
        // Each chunk's run turned round, then the whole: the runs change places, each rising again.
        auto run = out->begin();
        while (run != out->end()) {
            auto end = run + 1;
            while (end != out->end() && ixste_seg_no(*end) > ixste_seg_no(*(end - 1))) ++end;
            std::reverse(run, end);
            run = end;
        }
        std::reverse(out->begin(), out->end());
    }
    return 0;
}

rctype ixhy_value_segs(DA_IDX* hbx, const IXH_HEADER_D* hdr, const IXHYBRID_BTDATA_D* bt, IXH_ST_ENTRY_D** segs,
                       int64_t* n) {
    *segs = nullptr;
    *n = 0;
    std::vector<IXH_ST_ENTRY_D> v;
    rctype rc;
    try {
        rc = ixhy_value_segv(hbx, hdr, bt, &v);
    } catch (const std::bad_alloc&) {
        return IX_NOMEM;
    }
    if (rc < 0 || v.empty()) return rc;
    auto* out = static_cast<IXH_ST_ENTRY_D*>(malloc(sizeof(IXH_ST_ENTRY_D) * v.size()));
    if (!out) return IX_NOMEM;
    memcpy(out, v.data(), sizeof(IXH_ST_ENTRY_D) * v.size());
    *segs = out;
    *n = static_cast<int64_t>(v.size());
    return 0;
}

}  // namespace vrta
