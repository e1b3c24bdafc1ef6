#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "ssubs/zavl.h"

using namespace vrta;

namespace {

// A record as callers lay it out: the node head first, the key behind it.
struct Rec {
    AVLTREE node;
    uint32_t key[2];  // big-endian bytes for the skb tests, words for uinta
    int id;
};
constexpr int KEYOFF = offsetof(Rec, key);

bool marked(const AVLTREE* l) { return reinterpret_cast<uintptr_t>(l) & 1; }
AVLTREE* bare(AVLTREE* l) { return reinterpret_cast<AVLTREE*>(reinterpret_cast<uintptr_t>(l) & ~uintptr_t{1}); }

uint32_t keyOf(const AVLTREE* n) { return __builtin_bswap32(reinterpret_cast<const Rec*>(n)->key[0]); }

// Checks heights, balance factors, order and threads of a subtree; returns
// its height. lo/hi: the in-order neighbours the threads at its edges must name.
int check(AVLTREE* n, AVLTREE* lo, AVLTREE* hi, std::vector<uint32_t>& out) {
    int lh = 0, rh = 0;
    if (marked(n->llink)) EXPECT_EQ(lo, bare(n->llink));
    else lh = check(n->llink, lo, n, out);
    out.push_back(keyOf(n));
    if (marked(n->rlink)) EXPECT_EQ(hi, bare(n->rlink));
    else rh = check(n->rlink, n, hi, out);
    EXPECT_EQ(rh - lh, n->bal);
    EXPECT_LE(std::abs(rh - lh), 1);
    return 1 + std::max(lh, rh);
}

void checkTree(AVLTREE* head, const std::set<uint32_t>& model) {
    std::vector<uint32_t> got;
    if (head) check(head, nullptr, nullptr, got);
    ASSERT_EQ(std::vector<uint32_t>(model.begin(), model.end()), got);
    // The walks give the same both ways.
    std::vector<uint32_t> fwd, back;
    for (AVLTREE* n = zavl_first_node(head); n; n = zavl_next_node(n)) fwd.push_back(keyOf(n));
    for (AVLTREE* n = zavl_last_node(head); n; n = zavl_prev_node(n)) back.insert(back.begin(), keyOf(n));
    ASSERT_EQ(got, fwd);
    ASSERT_EQ(got, back);
}

}  // namespace

TEST(Avl, AddFindRemoveKeepTheTreeBalancedAndThreaded) {
    SKB_KEY skb;
    ASSERT_EQ(0, skbmeminit(&skb, 4, 4));
    const char* longrun = std::getenv("VRTA_LONG");
    int rounds = longrun ? 200000 : 6000;
    std::mt19937 rng(11);
    std::vector<Rec> pool(512);
    for (size_t i = 0; i < pool.size(); ++i) {
        pool[i].key[0] = __builtin_bswap32(static_cast<uint32_t>(i * 3));
        pool[i].id = static_cast<int>(i);
    }
    AVLTREE* head = nullptr;
    std::set<uint32_t> model;
    for (int r = 0; r < rounds; ++r) {
        Rec& rec = pool[rng() % pool.size()];
        uint32_t k = keyOf(&rec.node);
        // Grow for a while, then shrink, so that both paths meet deep trees.
        bool add = ((r / 1000) % 2 == 0) ? rng() % 4 != 0 : rng() % 4 == 0;
        if (add) {
            AVLTREE* got = zavl_add_skb(&head, &rec.node, KEYOFF, &skb, 4);
            if (model.count(k)) {
                EXPECT_EQ(&rec.node, got);  // the record is the one in the tree
            } else {
                EXPECT_EQ(&rec.node, got);
                model.insert(k);
            }
        } else {
            AVLTREE* got = zavl_rem_skb(&head, rec.key, KEYOFF, &skb, 4);
            if (model.count(k)) {
                EXPECT_EQ(&rec.node, got);
                model.erase(k);
            } else {
                EXPECT_EQ(nullptr, got);
            }
        }
        if (r % 7 == 0 || longrun) {
            ASSERT_NO_FATAL_FAILURE(checkTree(head, model));
        }
        uint32_t probe = __builtin_bswap32(static_cast<uint32_t>(rng() % 1600));
        AVLTREE* f = zavl_find_skb(head, &probe, KEYOFF, &skb, 4);
        EXPECT_EQ(model.count(__builtin_bswap32(probe)) != 0, f != nullptr);
    }
    ASSERT_NO_FATAL_FAILURE(checkTree(head, model));

    // A duplicate leaves the tree as it was and names the node in it.
    if (!model.empty()) {
        Rec dup{};
        dup.key[0] = __builtin_bswap32(*model.begin());
        AVLTREE* in = zavl_find_skb(head, dup.key, KEYOFF, &skb, 4);
        EXPECT_EQ(in, zavl_add_skb(&head, &dup.node, KEYOFF, &skb, 4));
        ASSERT_NO_FATAL_FAILURE(checkTree(head, model));
    }

    // As a list: every link a thread, in key order both ways.
    AVLTREE* first = zavl2list(head);
    std::vector<uint32_t> fwd;
    AVLTREE* last = nullptr;
    for (AVLTREE* n = first; n; n = zavl_next_node(n)) {
        EXPECT_TRUE(marked(n->llink) && marked(n->rlink));
        EXPECT_EQ(last, bare(n->llink));
        fwd.push_back(keyOf(n));
        last = n;
    }
    EXPECT_EQ(std::vector<uint32_t>(model.begin(), model.end()), fwd);
    EXPECT_EQ(first, zavl_first_node(first));
}

TEST(Avl, OneNodeTreeBecomesOneNodeListAndEmptyTreesAreHarmless) {
    SKB_KEY skb;
    ASSERT_EQ(0, skbmeminit(&skb, 4, 4));
    AVLTREE* head = nullptr;
    EXPECT_EQ(nullptr, zavl2list(head));
    EXPECT_EQ(nullptr, zavl_first_node(head));
    uint32_t k = 5;
    EXPECT_EQ(nullptr, zavl_rem_skb(&head, &k, KEYOFF, &skb, 4));
    Rec r{};
    r.key[0] = 5;
    EXPECT_EQ(&r.node, zavl_add_skb(&head, &r.node, KEYOFF, &skb, 4));
    AVLTREE* l = zavl2list(head);
    EXPECT_EQ(&r.node, l);
    EXPECT_EQ(nullptr, zavl_next_node(l));
    EXPECT_EQ(nullptr, zavl_prev_node(l));
    EXPECT_TRUE(marked(l->llink) && marked(l->rlink));
}

TEST(Avl, UnsignedWordKeysCompareByWordNotByByte) {
    // Words whose byte order disagrees with their value order on this machine.
    std::vector<std::array<uint32_t, 2>> keys = {{1, 0x100}, {0x100, 1}, {1, 2}, {0xffffffffu, 0}, {0, 0xffffffffu}, {2, 1}};
    std::vector<Rec> recs(keys.size());
    AVLTREE* head = nullptr;
    for (size_t i = 0; i < keys.size(); ++i) {
        memcpy(recs[i].key, keys[i].data(), 8);
        EXPECT_EQ(&recs[i].node, zavl_add_uinta(&head, &recs[i].node, KEYOFF, 2));
    }
    std::vector<std::array<uint32_t, 2>> want = keys;
    std::sort(want.begin(), want.end());
    std::vector<std::array<uint32_t, 2>> got;
    for (AVLTREE* n = zavl_first_node(head); n; n = zavl_next_node(n)) {
        auto* r = reinterpret_cast<Rec*>(n);
        got.push_back({r->key[0], r->key[1]});
    }
    EXPECT_EQ(want, got);
    uint32_t probe[2] = {0x100, 1};
    EXPECT_EQ(&recs[1].node, zavl_find_uinta(head, probe, KEYOFF, 2));
    EXPECT_EQ(&recs[1].node, zavl_rem_uinta(&head, probe, KEYOFF, 2));
    EXPECT_EQ(nullptr, zavl_find_uinta(head, probe, KEYOFF, 2));
}

TEST(Avl, WordKeysOfOddLengthOrderByEveryWordInTurn) {
    // Three words: the first two are compared as a pair, the third alone. Few
    // word values, so keys tie on leading words and differ only further on.
    struct Rec3 {
        AVLTREE node;
        uint32_t key[3];
    };
    const uint32_t vals[] = {0, 1, 0x80000000u, 0xffffffffu, 0x00010000u};
    std::mt19937 rng(7);
    std::vector<Rec3> recs(400);
    std::set<std::array<uint32_t, 3>> model;
    AVLTREE* head = nullptr;
    for (Rec3& r : recs) {
        std::array<uint32_t, 3> k;
        for (uint32_t& w : k) w = vals[rng() % 5];
        memcpy(r.key, k.data(), sizeof r.key);
        AVLTREE* got = zavl_add_uinta(&head, &r.node, offsetof(Rec3, key), 3);
        EXPECT_EQ(model.insert(k).second, got == &r.node);
    }
    std::vector<std::array<uint32_t, 3>> walked;
    for (AVLTREE* n = zavl_first_node(head); n; n = zavl_next_node(n)) {
        auto* r = reinterpret_cast<Rec3*>(n);
        walked.push_back({r->key[0], r->key[1], r->key[2]});
    }
    std::vector<std::array<uint32_t, 3>> want(model.begin(), model.end());
    EXPECT_EQ(want, walked);
}
