// Reading a hybrid index value's segments: the record's own one segment, or
// the chunks chained back from the newest, checked as they are read so that
// a damaged file gives a code, never a walk without end.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ix/ixhy.h"

namespace vrta {

rctype ixhy_value_segs(DA_IDX* hbx, const IXH_HEADER_D* hdr, const IXHYBRID_BTDATA_D* bt, IXH_ST_ENTRY_D** segs,
                       int64_t* n) {
    *segs = nullptr;
    *n = 0;
    int type = ixbt_bm_type(*bt);
    if (type == Bm_Deleted) return 0;
    int64_t segsize = hdr->common.segment_size;
    if (ixbt_one_segment(*bt)) {
        auto* e = static_cast<IXH_ST_ENTRY_D*>(calloc(1, sizeof(IXH_ST_ENTRY_D)));
        if (!e) return IX_NOMEM;
        ixste_set(*e, ixbt_high_segno(*bt), type);
        e->data = type == Bm_One_Bit_Set ? bt->obs_data : bt->seg_data;
        e->bm_offset = type == Bm_One_Bit_Set ? 0 : bt->data_loc;
        *segs = e;
        *n = 1;
        return 0;
    }
    int64_t want = bt->seg_data;
    if (want < 1 || want > IXH_MAXSEGS) return IX_INCONSIST;
    std::vector<std::vector<IXH_ST_ENTRY_D>> chunks;
    int64_t have = 0;
    int32_t below = ixbt_high_segno(*bt) + 1;
    for (da_off_t at = bt->data_loc; at != 0;) {
        IXH_SEGCHUNK_D c;
        if (at < static_cast<da_off_t>(sizeof(IXH_HEADER_D)) || Read_Bitmap(hbx, at, sizeof c, &c) < 0)
            return IX_READFAIL;
        if (c.n_segs < 1 || c.n_segs > c.max_segs || have + c.n_segs > want || c.high_segno >= below ||
            c.low_segno > c.high_segno)
            return IX_INCONSIST;
        std::vector<IXH_ST_ENTRY_D> ents(static_cast<size_t>(c.n_segs));
        if (Read_Bitmap(hbx, at + static_cast<da_off_t>(sizeof c), static_cast<int64_t>(ents.size() * sizeof ents[0]),
                        ents.data()) < 0)
            return IX_READFAIL;
        int32_t prev = -1;
        for (auto& e : ents) {
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
        have += c.n_segs;
        chunks.push_back(std::move(ents));
        at = c.next;
    }
    if (have != want) return IX_INCONSIST;
    auto* out = static_cast<IXH_ST_ENTRY_D*>(malloc(sizeof(IXH_ST_ENTRY_D) * static_cast<size_t>(have)));
    if (!out) return IX_NOMEM;
    int64_t k = 0;
    for (auto it = chunks.rbegin(); it != chunks.rend(); ++it)
        for (auto& e : *it) out[k++] = e;
    *segs = out;
    *n = have;
    return 0;
}

}  // namespace vrta
