// The read-list rebuild as it was before it was made plain, kept only to
// measure what each of its devices buys: every device can be switched off
// alone. Benchmark code, not part of the driver.
#ifndef PLCDRIVER_LEGACY_READ_LIST_H
#define PLCDRIVER_LEGACY_READ_LIST_H

#include "Communication_Protocol.h"
#include "Driver_Internal.h"
#include "Driver_Lock.h"

#include <QList>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>
#include <vector>

namespace legacy {

struct Devices {
    bool radix = true;                  // radix sort of the items (else std::stable_sort of the same items)
    bool prefetch = true;               // the nine prefetch calls
    bool branch_free = true;            // the branch-free copy of the merge step (else the merge step)
    bool pooled = true;                 // work buffers kept from one call to the next (else fresh ones)
    bool in_place = true;               // the previous list's records overwritten (else a fresh list)
    bool layout_read = true;            // text identity from QString's first word (else isSharedWith)
    bool texts_in_runtime_order = true; // pending texts handed out in the runtime's order (else in list order)
};

namespace detail {

const Devices *g_devices = nullptr;

inline void ahead(const void *p)
{
    if (g_devices->prefetch)
        __builtin_prefetch(p);
}
inline void ahead_w(const void *p)
{
    if (g_devices->prefetch)
        __builtin_prefetch(p, 1);
}
// Prefetches of a text's block need its address from QString's first word.
inline bool text_ahead()
{
    return g_devices->prefetch && g_devices->layout_read;
}

// Record i of a group (start A, count C) merged with a limit of at least 2:
// it opens a request, grows the current one, or falls inside it. S and L
// follow the current request.
template <typename Sink>
inline void merge_step(int i, qint64 A, qint64 C, qint64 limit, qint64 &S, qint64 &L, Sink &sink)
{
    // A merge needs a request to extend; with none (an empty list after a
    // count-0 first record) the record opens its own.
    if (i == 0 || A >= S + limit || sink.empty()) {
        // New request: the record in pieces of at most limit units.
        for (qint64 start = A, left = C; left > 0;) {
            const qint64 piece = std::min<qint64>(left, limit);
            sink.append_record(i, qint32(start), qint32(piece));
            start += piece;
            left -= piece;
        }
    } else if (A + C > S + L) {
        // Merge: the current request grows to reach A + C; what lies beyond
        // limit goes as copies of the current request.
        const qint64 E = A + C - S; // length needed from the request's start
        sink.set_last_count(qint32(std::min<qint64>(E, limit)));
        for (qint64 start = S + limit, left = E - limit; left > 0;) {
            const qint64 piece = std::min<qint64>(left, limit);
            sink.append_copy_of_last(qint32(start), qint32(piece));
            start += piece;
            left -= piece;
        }
    }
    if (!sink.empty()) {
        S = sink.last_start();
        L = sink.last_count();
    }
}

// Merges and splits one group, already in address order. addr_at(i) and
// count_at(i) give record i's start_addr and count; the requests go to a
// sink, which holds the list being built (its last entry is the current
// request) and knows how to make a request from record i. The same code so
// serves BitVarReCreat (records straight into read_list) and
// ReCreatReadVarList (a compact index of the runtime's descriptors).
template <typename AddrAt, typename CountAt, typename Sink>
void merge_group(int size, int block_limit, AddrAt addr_at, CountAt count_at, Sink &sink)
{
    if (size <= 0)
        return;
    const int limit = block_limit < 1 ? 1 : block_limit;

    if (limit == 1) {
        // Neither merged nor split; of equal addresses the largest count wins.
        sink.append_record(0, addr_at(0), count_at(0));
        qint32 addr = addr_at(0);
        qint32 count = count_at(0);
        for (int i = 1; i < size; ++i) {
            const qint32 a = addr_at(i);
            const qint32 c = count_at(i);
            if (a != addr) {
                sink.append_record(i, a, c);
                addr = a;
                count = c;
            } else if (c > count) {
                sink.set_last_count(c);
                count = c;
            }
        }
        return;
    }

    // S and L: start and length of the current request (the last entry of
    // the list), in 64 bits so that sums near the top of the range do not
    // overflow.
    qint64 S = 0, L = 0;
    for (int i = 0; i < size; ++i)
        merge_step(i, addr_at(i), count_at(i), limit, S, L, sink);
}

// Prefetch hints for the passes over the runtime's descriptors. A QList of
// records this size holds a pointer to each, and each text is a block of
// its own; with tens of thousands of descriptors these no longer sit in the
// caches, and a pass that waits for each in turn is bound by memory
// latency. The passes so ask for the records and texts a few steps ahead.
// The first word of a QString (Qt 5 and 6) is the address of its shared
// block: share count, then the characters. A prefetch never faults, so
// reading that word can only ever cost speed, not correctness.
const int kPrefetchAhead = 16;

inline const void *text_block(const QString &s)
{
    const void *block;
    std::memcpy(&block, &s, sizeof block);
    return block;
}

// Sets every field of r from proto, except the two texts, which r keeps.
// proto's texts are empty.
inline void assign_keeping_texts(RW_VAR &r, const RW_VAR &proto)
{
    QString name_text;
    QString address_text;
    name_text.swap(r.name_text);
    address_text.swap(r.address_text);
    r = proto;
    r.name_text.swap(name_text);
    r.address_text.swap(address_text);
}

// One parsed and converted descriptor of ReCreatReadVarList: what grouping,
// ordering and merging need, without the texts. The sort key packs the
// station (bits 47..40), the kind (39..32) and the start address with its
// sign bit flipped (31..0), so that ascending keys are ascending stations,
// then kinds, then signed addresses. A descriptor carries an 8-bit station
// and an 8-bit kind, and the conversion only maps kinds onto 2..4, so both
// fit; when the default station stands for every variable the station
// byte is simply 0.
struct ReadItem {
    quint64 key;
    qint32 count;
    qint32 index; // position in the runtime's list
};

inline quint64 read_item_key(int station_byte, int kind, qint32 start_addr)
{
    return (quint64(quint8(station_byte)) << 40) | (quint64(quint8(kind)) << 32) |
           quint64(quint32(start_addr) ^ 0x80000000u);
}
inline qint32 read_item_kind(quint64 key)
{
    return qint32((key >> 32) & 0xFFu);
}
inline qint32 read_item_station_byte(quint64 key)
{
    return qint32((key >> 40) & 0xFFu);
}
inline qint32 read_item_start(quint64 key)
{
    return qint32(quint32(key) ^ 0x80000000u);
}
// The key of the item's group: station and kind, without the address.
inline quint64 group_part(quint64 key)
{
    return key & ~quint64(0xFFFFFFFFu);
}

// Which bits of the items' keys differ: the OR and the AND of every key,
// gathered while the items are made.
struct KeyBits {
    quint64 key_or = 0;
    quint64 key_and = ~quint64(0);
    void add(quint64 key)
    {
        key_or |= key;
        key_and &= key;
    }
};

// Stable ascending sort of the items by key: equal keys keep the runtime's
// order. Short lists take std::stable_sort; longer ones a least-significant-
// digit radix sort, each pass a stable counting sort, linear in the number
// of items where a comparison sort would add a logarithmic factor.
//
// Only bits that differ between items take part: in each field of the key
// the bits above the highest one that differs are the same in every item.
// The address's low bits are cut into as few digits as fit 11 bits each
// (evenly: 18 bits make two passes of 9, not three of 8 with a last one of
// 2), then the station's and kind's low bits, joined, make the group's
// digits. Wider digits scatter into more places at once, which costs
// little up to 11 bits; a pass saved is a whole read and write of the list.
// bits must hold the OR and AND of exactly these items' keys; counts is
// room for the digit counts.
void sort_read_items(std::vector<ReadItem> &items, std::vector<ReadItem> &scratch, const KeyBits &bits,
                     std::vector<quint32> &counts)
{
    const size_t n = items.size();
    if (n < 256 || !g_devices->radix) {
        std::stable_sort(items.begin(), items.end(),
                         [](const ReadItem &a, const ReadItem &b) { return a.key < b.key; });
        return;
    }
    const auto width = [](quint64 mask) {
        int w = 0;
        while (w < 64 && (mask >> w) != 0)
            ++w;
        return w;
    };
    const quint64 varying = bits.key_or ^ bits.key_and;
    const int a_bits = width(varying & 0xFFFFFFFFu);
    const int k_bits = width((varying >> 32) & 0xFFu);
    const int s_bits = width((varying >> 40) & 0xFFu);
    const quint64 k_mask = (quint64(1) << k_bits) - 1;
    const quint64 s_mask = (quint64(1) << s_bits) - 1;
    // The group's differing bits, station above kind.
    const auto group_of = [=](quint64 key) { return (((key >> 40) & s_mask) << k_bits) | ((key >> 32) & k_mask); };

    struct Pass {
        int shift;
        int width;
        bool group;
    };
    Pass passes[8];
    int pass_count = 0;
    const auto add_passes = [&](int field_bits, bool group) {
        if (field_bits == 0)
            return;
        const int count = (field_bits + 10) / 11;
        const int w = (field_bits + count - 1) / count;
        for (int p = 0; p < count; ++p)
            passes[pass_count++] = {p * w, w, group};
    };
    add_passes(a_bits, false);
    add_passes(k_bits + s_bits, true);
    if (pass_count == 0)
        return; // every key is the same: the runtime's order stands

    // Every pass's counts in one read of the items.
    size_t offset_of[8];
    size_t total = 0;
    for (int p = 0; p < pass_count; ++p) {
        offset_of[p] = total;
        total += size_t(1) << passes[p].width;
    }
    counts.assign(total, 0);
    quint32 *const c0 = counts.data();
    for (const ReadItem &it : items) {
        const quint64 g = group_of(it.key);
        for (int p = 0; p < pass_count; ++p) {
            const quint64 m = (quint64(1) << passes[p].width) - 1;
            const quint64 v = passes[p].group ? g : it.key;
            ++c0[offset_of[p] + size_t((v >> passes[p].shift) & m)];
        }
    }

    scratch.resize(n);
    ReadItem *src = items.data();
    ReadItem *dst = scratch.data();
    for (int p = 0; p < pass_count; ++p) {
        const Pass pass = passes[p];
        const size_t buckets = size_t(1) << pass.width;
        const quint64 m = buckets - 1;
        quint32 *const c = c0 + offset_of[p];
        const quint64 first = ((pass.group ? group_of(src[0].key) : src[0].key) >> pass.shift) & m;
        if (c[first] == n)
            continue; // every item has this digit: the pass would not move anything
        quint32 offset = 0;
        for (size_t v = 0; v < buckets; ++v) {
            const quint32 k = c[v];
            c[v] = offset;
            offset += k;
        }
        const int shift = pass.shift;
        if (pass.group) {
            for (size_t i = 0; i < n; ++i)
                dst[c[(group_of(src[i].key) >> shift) & m]++] = src[i];
        } else {
            for (size_t i = 0; i < n; ++i)
                dst[c[(src[i].key >> shift) & m]++] = src[i];
        }
        std::swap(src, dst);
    }
    if (src != items.data())
        items.swap(scratch);
}

// One request of the rebuilt list before it becomes a record: the group
// (station and kind, as in the item key), its start and count, and the
// descriptor whose record it is a copy of.
struct PlannedRequest {
    // Left unset: the planner sizes its list ahead and writes every entry
    // it keeps, so filling the room with zeros first would be wasted.
    PlannedRequest() {}
    PlannedRequest(quint64 group_key_, qint32 start_addr_, qint32 count_, qint32 index_)
        : group_key(group_key_), start_addr(start_addr_), count(count_), index(index_)
    {
    }
    quint64 group_key; // the item key without the address
    qint32 start_addr;
    qint32 count;
    qint32 index;
};

// Where a descriptor's two texts keep their characters (see text_block):
// enough to tell whether a record already shares them, without going back
// to the descriptor.
struct TextBlocks {
    const void *name_text;
    const void *address_text;
};

// True when s keeps its characters in block. A string without a block of
// its own (raw data, in Qt 6 also the null string) is never taken as shared.
inline bool shares_block(const QString &s, const void *block)
{
    return block != nullptr && text_block(s) == block;
}

// The texts of one descriptor, for the records made from it, and the plan
// position of the last of those (that one gets them moved, not copied).
struct PlannedTexts {
    QString name_text;
    QString address_text;
    int last_use;
};

// Work buffers of ReCreatReadVarList, used only under list_mutex. They keep
// their capacity from one rebuild to the next: large buffers freed and
// allocated again on every call would be handed back to the system and
// mapped afresh each time, and those page faults cost more than the rebuild
// itself. A buffer far larger than the current call needs is released.
struct RebuildBuffers {
    std::vector<ReadItem> items;
    std::vector<ReadItem> scratch;
    std::vector<quint32> digit_counts;
    std::vector<PlannedRequest> plan;
    std::vector<TextBlocks> text_blocks; // their texts' shared blocks, by position
    std::vector<int> pending;            // records still waiting for their texts
    std::vector<int> slot_of;
    std::vector<PlannedTexts> texts;

    // Empties every buffer for a rebuild from n descriptors.
    void prepare(size_t n)
    {
        reuse(items, n);
        reuse(scratch, n);
        reuse(plan, n);
        reuse(text_blocks, n);
        reuse(pending, n);
        reuse(slot_of, n);
        reuse(texts, n);
    }

private:
    template <typename T> static void reuse(std::vector<T> &v, size_t n)
    {
        if (v.capacity() > 4 * n + 4096)
            std::vector<T>().swap(v);
        v.clear();
    }
};

RebuildBuffers &rebuild_buffers()
{
    static RebuildBuffers buffers;
    return buffers;
}

// ReCreatReadVarList's sink: plans requests over the sorted items of one
// group at a time; the records are made afterwards, in one pass.
class PlanSink {
public:
    explicit PlanSink(std::vector<PlannedRequest> &out) : out_(out) {}
    void set_group(const ReadItem *group) { group_ = group; }
    bool empty() const { return out_.empty(); }
    qint32 last_start() const { return out_.back().start_addr; }
    qint32 last_count() const { return out_.back().count; }
    void set_last_count(qint32 count) { out_.back().count = count; }
    void append_record(int i, qint32 start, qint32 count)
    {
        out_.push_back(PlannedRequest(group_part(group_[i].key), start, count, group_[i].index));
    }
    void append_copy_of_last(qint32 start, qint32 count)
    {
        PlannedRequest copy = out_.back();
        copy.start_addr = start;
        copy.count = count;
        out_.push_back(copy);
    }

private:
    std::vector<PlannedRequest> &out_;
    const ReadItem *group_ = nullptr;
};

// Plans one group of sorted items into plan, with the result of merge_group
// and PlanSink. Whether a record opens a request or extends the current one
// follows the addresses, which a branch predictor cannot guess; so the
// common case (a record that fits in one request and, extending one, stays
// within the limit) is done without branching on it: the current request
// lives in registers and is written to its slot on every step. The rest
// (a group's first record, counts below 1 or past the limit, splits, the
// limit-1 path) takes the general code.
void plan_group(const ReadItem *g, int size, int block_limit, std::vector<PlannedRequest> &plan)
{
    PlanSink sink(plan);
    sink.set_group(g);
    const int limit = block_limit < 1 ? 1 : block_limit;
    if (limit == 1 || !g_devices->branch_free) {
        merge_group(
            size, limit, [g](int i) { return read_item_start(g[i].key); }, [g](int i) { return g[i].count; }, sink);
        return;
    }
    // Room for one more request per record: a fast step adds at most one.
    size_t used = plan.size();
    plan.resize(used + size_t(size));
    PlannedRequest *slots = plan.data();
    quint64 group_key = 0;
    qint32 index = 0;
    qint64 S = 0, L = 0;
    for (int i = 0; i < size; ++i) {
        const qint64 A = read_item_start(g[i].key);
        const qint64 C = g[i].count;
        const bool open = A >= S + limit;
        const qint64 E = A + C - S;
        if (i == 0 || used == 0 || C < 1 || C > limit || (!open && E > limit)) {
            plan.resize(used);
            merge_step(i, A, C, limit, S, L, sink);
            used = plan.size();
            if (used > 0) {
                group_key = plan.back().group_key;
                index = plan.back().index;
            }
            plan.resize(used + size_t(size - i - 1));
            slots = plan.data();
            continue;
        }
        used += open ? 1 : 0;
        group_key = open ? group_part(g[i].key) : group_key;
        index = open ? g[i].index : index;
        L = open ? C : std::max(L, E);
        S = open ? A : S;
        slots[used - 1] = PlannedRequest(group_key, qint32(S), qint32(L), index);
    }
    plan.resize(used);
}

// Gives the records noted in buf.pending the texts of their descriptors,
// taken in the runtime's order: a request list is in address order, and
// copying texts in that order would visit the runtime's descriptors (and
// the share counts of their strings) at random, which for large lists
// costs more than all the rest. slot_of[i] first holds the plan position of
// the last noted record made from descriptor i (-1: none), then the
// descriptor's entry in texts. Each text is copied once and moved into its
// last record.
void give_pending_texts(const QList<HostReadVar> &descriptors, QList<RW_VAR>::iterator records,
                        const std::vector<PlannedRequest> &plan, RebuildBuffers &buf)
{
    const int host_count = descriptors.size();
    const std::vector<TextBlocks> &text_blocks = buf.text_blocks;
    const std::vector<int> &pending = buf.pending;
    std::vector<int> &slot_of = buf.slot_of;
    slot_of.assign(size_t(host_count), -1);
    for (const int k : pending)
        slot_of[size_t(plan[size_t(k)].index)] = k;
    std::vector<PlannedTexts> &texts = buf.texts;
    for (int i = 0; i < host_count; ++i) {
        if (text_ahead() && i + kPrefetchAhead / 2 < host_count && slot_of[size_t(i + kPrefetchAhead / 2)] >= 0) {
            const TextBlocks &ahead = text_blocks[size_t(i + kPrefetchAhead / 2)];
            __builtin_prefetch(ahead.name_text, 1);
            __builtin_prefetch(ahead.address_text, 1);
        }
        const int last_use = slot_of[size_t(i)];
        if (last_use < 0)
            continue;
        const HostReadVar &h = descriptors.at(i);
        slot_of[size_t(i)] = int(texts.size());
        texts.push_back({h.name_text, h.address_text, last_use});
    }
    const size_t count = pending.size();
    for (size_t j = 0; j < count; ++j) {
        // Ahead: the texts entry of a coming record, and the share
        // counts of the texts it gives up.
        if (j + kPrefetchAhead < count)
            ahead(&texts[size_t(slot_of[size_t(plan[size_t(pending[j + kPrefetchAhead])].index)])]);
        if (text_ahead() && j + kPrefetchAhead / 2 < count) {
            const RW_VAR &ahead = records[pending[j + kPrefetchAhead / 2]];
            __builtin_prefetch(text_block(ahead.name_text), 1);
            __builtin_prefetch(text_block(ahead.address_text), 1);
        }
        const int k = pending[j];
        RW_VAR &r = records[k];
        PlannedTexts &t = texts[size_t(slot_of[size_t(plan[size_t(k)].index)])];
        if (t.last_use == k) {
            r.name_text = std::exchange(t.name_text, QString());
            r.address_text = std::exchange(t.address_text, QString());
        } else {
            r.name_text = t.name_text;
            r.address_text = t.address_text;
        }
    }
    texts.clear();
}

} // namespace detail
using namespace detail;

inline int locked_size(const QList<RW_VAR> &list);

inline int rebuild_with(QList<HostReadVar> *descriptors, const Devices &devices)
{
    Communication_Protocol &d = PLC_driver;
    {
        DriverLock lock(d.list_mutex);
        ComInfo *info = d.com_info;
        // Nothing to read, or no communication-info record to read it with:
        // the list is left empty.
        if (!descriptors || descriptors->isEmpty() || !info) {
            d.read_list = QList<RW_VAR>();
            return 0;
        }

        const int n = effective_max_units();
        d.cycle_count = 0;
        info->cycle_done = 0;
        const bool own_station = info->station_from_address != 0;

        RW_VAR work;
        work.source_type = 0;
        work.source_id = -1;
        work.rw_flag = 0;
        work.link_mode = info->link_mode;
        work.link_id = info->local_link_id;
        work.status = 0;
        work.ext_param1 = 0;
        work.ext_param2 = 0;

        // Parse and convert every descriptor into a compact item.
        const int host_count = descriptors->size();
        g_devices = &devices;
        RebuildBuffers fresh;
        RebuildBuffers &buf = devices.pooled ? rebuild_buffers() : fresh;
        buf.prepare(size_t(host_count));
        std::vector<ReadItem> &items = buf.items;
        items.reserve(size_t(host_count));
        std::vector<TextBlocks> &text_blocks = buf.text_blocks;
        text_blocks.resize(size_t(host_count));
        KeyBits key_bits;
        for (int i = 0; i < host_count; ++i) {
            // A step of this pass is short: it asks further ahead.
            if (i + 4 * kPrefetchAhead < host_count)
                ahead(&descriptors->at(i + 4 * kPrefetchAhead));
            if (text_ahead() && i + 2 * kPrefetchAhead < host_count)
                __builtin_prefetch(text_block(descriptors->at(i + 2 * kPrefetchAhead).address_text));
            const HostReadVar &h = descriptors->at(i);
            if (devices.layout_read)
                text_blocks[size_t(i)] = {text_block(h.name_text), text_block(h.address_text)};
            const int addr = StringAddressToInt(h.reg_kind, h.address_text);
            if (addr < 0)
                continue;
            work.station = own_station ? h.station : info->default_station;
            work.start_addr = addr;
            work.count = h.count;
            work.reg_kind = h.reg_kind;
            Communication_Protocol::update_rw_var(&work);
            const quint64 key = read_item_key(own_station ? work.station : 0, work.reg_kind, work.start_addr);
            items.push_back({key, work.count, i});
            key_bits.add(key);
        }

        // Groups by station, then kind, both ascending; inside a group by
        // address, equal addresses in the runtime's order. This is the order
        // of grouping into per-station, per-kind lists in the runtime's order
        // and sorting each with Bubble_Sort, done as one stable sort.
        sort_read_items(items, buf.scratch, key_bits, buf.digit_counts);

        // Merge and split each group into planned requests.
        std::vector<PlannedRequest> &plan = buf.plan;
        for (size_t first = 0; first < items.size();) {
            const quint64 group = group_part(items[first].key);
            size_t end = first + 1;
            while (end < items.size() && group_part(items[end].key) == group)
                ++end;
            const ReadItem *g = items.data() + first;
            plan_group(g, int(end - first), BlockLimitForKind(read_item_kind(g->key), n), plan);
            first = end;
        }

        // The records, in plan order. The records of the previous list are
        // overwritten in place (a list the runtime shares is left to it):
        // freeing tens of thousands of records and allocating as many again
        // costs more than the rebuild itself.
        QList<RW_VAR> &out = d.read_list;
        const int wanted = int(plan.size());
        if (!out.isDetached() || !devices.in_place)
            out = QList<RW_VAR>();
        if (out.size() > wanted)
            out.erase(out.begin() + wanted, out.end());
        out.reserve(wanted);
        while (out.size() < wanted)
            out.append(work);
        const QList<RW_VAR>::iterator records = out.begin();

        // First every field but the texts. A record that already shares
        // both texts with its descriptor (a list rebuilt from the same
        // descriptors) keeps them; the others are noted.
        std::vector<int> &pending = buf.pending;
        for (int k = 0; k < wanted; ++k) {
            if (k + kPrefetchAhead < wanted) {
                ahead(&text_blocks[size_t(plan[size_t(k + kPrefetchAhead)].index)]);
                ahead_w(&records[k + kPrefetchAhead]);
            }
            const PlannedRequest &p = plan[size_t(k)];
            RW_VAR &r = records[k];
            assign_keeping_texts(r, work);
            r.station = own_station ? read_item_station_byte(p.group_key) : info->default_station;
            r.reg_kind = read_item_kind(p.group_key);
            r.start_addr = p.start_addr;
            r.count = p.count;
            bool shared;
            if (devices.layout_read) {
                const TextBlocks &blocks = text_blocks[size_t(p.index)];
                shared =
                    shares_block(r.name_text, blocks.name_text) && shares_block(r.address_text, blocks.address_text);
            } else {
                const HostReadVar &h = descriptors->at(p.index);
                shared = r.name_text.isSharedWith(h.name_text) && r.address_text.isSharedWith(h.address_text);
            }
            if (shared)
                continue;
            if (devices.texts_in_runtime_order) {
                pending.push_back(k);
            } else {
                const HostReadVar &h = descriptors->at(p.index);
                r.name_text = h.name_text;
                r.address_text = h.address_text;
            }
        }

        // Then the texts of the noted records.
        if (!pending.empty())
            give_pending_texts(*descriptors, records, plan, buf);
    }
    return locked_size(d.read_list);
}

inline int locked_size(const QList<RW_VAR> &list)
{
    DriverLock lock(PLC_driver.list_mutex);
    return list.size();
}

} // namespace legacy

#endif
