// The reference host: the driver's set-up, the variable lists, and the
// values and waits other threads use, with only the exported interface of
// libplcdriver.so. The layers below: transport.h (sockets), reply_framing.h
// (frames as bytes), link.h (one request on the wire with the pairing rules
// of its link mode); the communication thread is in exchange_loop.cpp.
#include "plchost.h"

#include "Communication_Protocol.h"
#include "Register_Kinds.h"
#include "link.h"
#include "read_times.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

namespace plchost {

namespace {

// The one live host. The driver calls its callbacks as plain C functions
// without a context pointer, so they find the host here.
std::atomic<Host *> g_instance{nullptr};

} // namespace

// The C callbacks the driver calls from inside DataCom (communication thread,
// driver list lock held). They only note the event; the host delivers it
// after DataCom has returned, so user hooks may call into the driver again.
struct CallbackBridge {
    static void write_done(int host_handle, int source_type, int source_id, int result)
    {
        if (Host *h = g_instance.load())
            h->events_.push_back({true, host_handle, source_type, source_id, result});
    }
    static void read_done(QList<RW_VAR> *, int source_type, int flag)
    {
        if (Host *h = g_instance.load())
            h->events_.push_back({false, 0, source_type, 0, flag});
    }
};

Host *Host::instance()
{
    return g_instance.load();
}

Host::Host(HostConfig config)
    : config_(std::move(config)), link_counters_(new LinkCounters), com_info_(new ComInfo), read_times_(new ReadTimes)
{
    if (config_.endpoints.empty())
        config_.endpoints.push_back(Endpoint{});
    Host *expected = nullptr;
    if (!g_instance.compare_exchange_strong(expected, this))
        throw std::logic_error("plchost: only one Host may exist at a time (the driver is one global object)");

    ConnectTimings timings;
    timings.connect_timeout = config_.connect_timeout;
    timings.reconnect_min = config_.reconnect_min;
    timings.reconnect_max = config_.reconnect_max;
    for (size_t i = 0; i < config_.endpoints.size(); ++i) {
        links_.push_back(std::make_unique<Link>(config_.endpoints[i], config_.link_mode, timings, config_.timeout,
                                                link_counters_.get()));
        links_.back()->set_trace([this, i](FrameDirection d, const uint8_t *data, size_t size) {
            if (trace_hook_)
                trace_hook_(d, int(i), data, size);
        });
    }
    setup_driver();
}

// Hands the driver this runtime's record, local areas and callbacks, and
// starts from a known driver state: every station on, no cyclic list.
void Host::setup_driver()
{
    std::memset(com_info_.get(), 0, sizeof(ComInfo));
    com_info_->max_read_units = config_.max_read_units;
    com_info_->default_station = config_.default_station;
    com_info_->retry_limit = config_.retry_limit;
    com_info_->station_from_address = config_.station_from_address ? 1 : 0;
    com_info_->link_mode = int(config_.link_mode);
    com_info_->local_link_id = 0;
    com_info_->write_mode = config_.write_to_plc ? 2 : 1;
    com_info_->host_handle = config_.host_handle;
    SetComInfo(com_info_.get());

    // Local areas of this runtime: the driver only stores their addresses.
    local_bits_.assign(8192, 0);
    local_words_.assign(8192, 0);
    local_third_.assign(8192, 0);
    FlashLocalRegister(local_bits_.data(), local_words_.data(), local_third_.data());
    RegistCallBackFuncIntf(&CallbackBridge::write_done, &CallbackBridge::read_done);

    EnCommStation(-1, 1);
    QList<HostReadVar> none;
    ReCreatReadVarList(&none);
}

Host::~Host()
{
    stop();
    for (auto &link : links_)
        link->close();
    g_instance.store(nullptr);
}

int Host::parse_address(int kind, const std::string &text)
{
    return PLCAddressChangeIntef(kind, QString::fromStdString(text));
}

// How a tag is described to the driver's read lists.
//
// Bit kinds: the driver's cyclic and one-shot lists keep a bit kind (0, 1)
// in the byte numbers of its converted address, and its request builders send
// those numbers as bit address and bit count. To read bits b..b+n-1 the host
// therefore describes them as "b.0" with a count of 8n: the conversion turns
// that into address b and count n, which go on the wire as they should.
//
// Remote frame: the driver accepts no remote reply shorter than 8 bytes (a
// 3-byte header, the data, 2 trailing bytes), so a read of fewer than 3 data
// bytes could never succeed. On that link the host asks for at least 3 data
// bytes (24 bits, 2 words); the extra units are read along and not shown.
static void describe_for_reading(const Tag &tag, bool remote, QString *address, int *count)
{
    *address = QString::fromStdString(tag.address);
    *count = tag.count;
    if (remote && plckinds::is_known_kind(tag.kind)) {
        // At least 3 data bytes: 24 bits of a bit class, 2 registers of a
        // register class, in the units the tag counts in.
        const int cls = plckinds::class_of(tag.kind);
        const int count_bits = plckinds::unit_bits(plckinds::kind_info(tag.kind).count_unit);
        *count = std::max(*count, plckinds::is_bit_class(cls) ? 24 : 2 * 16 / count_bits);
    }
    if (plckinds::is_bit_kind(tag.kind)) {
        const int bit = PLCAddressChangeIntef(tag.kind, *address);
        if (bit >= 0) {
            *address = QString::number(bit) + QStringLiteral(".0");
            *count *= 8;
        }
    }
}

int Host::set_tags(const std::vector<Tag> &tags, std::string *error)
{
    int accepted = 0;
    bool reported = false;
    for (const Tag &t : tags) {
        if (parse_address(t.kind, t.address) >= 0) {
            ++accepted;
        } else if (error && !reported) {
            *error = "invalid address '" + t.address + "' for kind " + std::to_string(t.kind) +
                     (t.name.empty() ? std::string() : " (tag " + t.name + ")");
            reported = true;
        }
    }
    std::unique_lock<std::mutex> lock(mutex_);
    pending_tags_ = tags;
    pending_tags_set_ = true;
    apply_pending(lock);
    return accepted;
}

bool Host::add_read_block(int kind, int start, int count, int station)
{
    if (!plckinds::is_class_kind(kind) || start < 0 || count < 1 || station < 0 || station > 255)
        return false;
    std::unique_lock<std::mutex> lock(mutex_);
    pending_blocks_.push_back({kind, start, count, station});
    apply_pending(lock);
    return true;
}

// With lock (on mutex_) held and tags or blocks just made pending: applies
// them now when the communication thread is not running, otherwise wakes the
// thread, which applies them before its next pass.
void Host::apply_pending(std::unique_lock<std::mutex> &lock)
{
    if (!running_) {
        lock.unlock();
        apply_tags_locked();
    } else {
        kicked_ = true;
        wake_cv_.notify_all();
    }
}

// Builds the driver's cyclic list from the pending tags and appends the
// pending blocks. Called before the thread starts or on the communication
// thread, because the driver writes the record's cycle flag while it
// rebuilds and AddListReadVar takes no lock.
void Host::apply_tags_locked()
{
    std::vector<Tag> tags;
    std::vector<ReadBlock> blocks;
    bool rebuild = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!pending_tags_set_ && pending_blocks_.empty())
            return;
        rebuild = pending_tags_set_;
        tags.swap(pending_tags_);
        pending_tags_set_ = false;
        blocks.swap(pending_blocks_);
    }
    if (rebuild)
        rebuild_cyclic_list(tags);
    for (const ReadBlock &b : blocks)
        append_read_block(b.kind, b.start, b.count, b.station);
}

void Host::rebuild_cyclic_list(const std::vector<Tag> &tags)
{
    QList<HostReadVar> list;
    for (const Tag &t : tags) {
        HostReadVar v;
        v.reg_kind = quint8(t.kind);
        v.station = quint8(t.station);
        describe_for_reading(t, config_.link_mode == LinkMode::Remote, &v.address_text, &v.count);
        v.name_text = QString::fromStdString(t.name);
        list.append(v);
    }
    cyclic_entries_.store(ReCreatReadVarList(&list));
}

// A block goes to the driver as it is, with the fields the rebuild gives
// its own entries.
void Host::append_read_block(int kind, int start, int count, int station)
{
    RW_VAR v;
    v.source_type = 0;
    v.source_id = -1;
    v.link_mode = com_info_->link_mode;
    v.link_id = com_info_->local_link_id;
    v.reg_kind = kind;
    v.start_addr = start;
    v.count = count;
    v.station = com_info_->station_from_address ? station : com_info_->default_station;
    v.address_text = QString::number(start);
    v.name_text = QStringLiteral("block");
    cyclic_entries_.store(AddListReadVar(&v));
}

bool Host::start(bool require_connection, std::string *error)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (running_)
            return true;
    }
    for (size_t i = 0; i < links_.size(); ++i) {
        std::string why;
        if (links_[i]->open(&why))
            continue;
        if (require_connection) {
            if (error)
                *error = why;
            for (size_t j = 0; j < i; ++j)
                links_[j]->close();
            return false;
        }
        links_[i]->defer();
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = false;
        running_ = true;
    }
    thread_ = std::thread(&Host::run, this);
    return true;
}

void Host::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!running_)
            return;
        stop_ = true;
        wake_cv_.notify_all();
    }
    if (thread_.joinable())
        thread_.join();

    // Leave the driver idle for a later host: no cyclic list, nothing pending.
    QList<HostReadVar> none;
    ReCreatReadVarList(&none);
    cyclic_entries_.store(0);
    give_up_pending();

    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    done_cv_.notify_all();
}

bool Host::running() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return running_;
}

bool Host::read(const Tag &tag, std::vector<uint8_t> *out) const
{
    QByteArray buf;
    const int ok =
        GetRegisterData(nullptr, tag.kind, QString::fromStdString(tag.address), tag.station, &buf, tag.count);
    out->assign(buf.constData(), buf.constData() + buf.size());
    return ok == 1;
}

bool Host::read(const Tag &tag, Reading *out) const
{
    const bool ok = read(tag, &out->bytes);
    out->quality = Quality::NotRead;
    const auto range = class_range(tag);
    if (!ok || !range)
        return ok;
    std::lock_guard<std::mutex> lock(mutex_);
    const auto when = read_times_->oldest(tag.station, *range);
    if (!when)
        return ok;
    out->time = *when;
    out->quality = failing_locked(tag.station) ? Quality::Failing : Quality::Good;
    return ok;
}

int Host::write(const Tag &tag, const std::vector<uint8_t> &data, int source_type, int *source_id)
{
    int id;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        id = next_source_id_++;
        done_.erase({source_type, id});
    }
    if (source_id)
        *source_id = id;
    QByteArray bytes(reinterpret_cast<const char *>(data.data()), int(data.size()));
    const int r = SetRegisterData(QString::fromStdString(tag.name), tag.kind, QString::fromStdString(tag.address),
                                  tag.station, &bytes, tag.count, source_type, id);
    kick();
    // SetRegisterData answers the write list's size read after queueing; the
    // communication thread may have sent the write and taken it off the list
    // by then, so an accepted write can answer 0. It answers 1 here, and 0
    // keeps meaning that nothing was queued.
    if (r == 0 && config_.write_to_plc && tag.count > 0 && kind_writable(tag.kind) &&
        parse_address(tag.kind, tag.address) >= 0)
        return 1;
    return r;
}

bool Host::read_once(const Tag &tag, int source_type, int *source_id)
{
    RW_VAR v;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        v.source_id = next_source_id_++;
        done_.erase({source_type, v.source_id});
    }
    if (source_id)
        *source_id = v.source_id;
    v.source_type = source_type;
    v.link_mode = com_info_->link_mode;
    v.link_id = com_info_->local_link_id;
    v.name_text = QString::fromStdString(tag.name);
    v.reg_kind = tag.kind;
    v.station = tag.station;
    describe_for_reading(tag, config_.link_mode == LinkMode::Remote, &v.address_text, &v.count);
    const int r = AddListOnceReadVar(&v, 0);
    kick();
    // 0 is the answer for an address that does not parse, but also the list's
    // size when the communication thread has served or dropped (switched-off
    // station) the entry before the size was read.
    return r > 0 || parse_address(tag.kind, tag.address) >= 0;
}

DoneResult Host::wait_done(int source_type, int source_id, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    const auto key = std::make_pair(source_type, source_id);
    if (!done_cv_.wait_for(lock, timeout, [&] { return done_.count(key) != 0; }))
        return DoneResult::TimedOut;
    const int result = done_[key];
    done_.erase(key);
    return result == int(DoneResult::Ok) ? DoneResult::Ok : DoneResult::Failed;
}

bool Host::wait_passes(uint64_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t target = stats_.passes + count;
    return done_cv_.wait_for(lock, timeout, [&] { return stats_.passes >= target; });
}

void Host::enable_station(int station, bool enable)
{
    EnCommStation(station, enable ? 1 : 0);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // As the driver's table: a negative station switches every station on.
        if (station < 0)
            switched_off_.clear();
        else if (enable)
            switched_off_.erase(station);
        else
            switched_off_.insert(station);
    }
    kick();
}

bool Host::station_failing(int station) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return failing_locked(station);
}

// Switched off, or given up on since its last good reply; mutex_ held.
bool Host::failing_locked(int station) const
{
    if (switched_off_.count(station))
        return true;
    const auto it = stats_.stations.find(station);
    return it != stats_.stations.end() && it->second.failing;
}

Stats Host::stats() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    Stats s = stats_;
    s.rtt_avg_ms = s.rtt_samples ? s.rtt_sum_ms / double(s.rtt_samples) : 0.0;
    for (auto &entry : s.stations) {
        StationStats &st = entry.second;
        st.rtt_avg_ms = st.rtt_samples ? st.rtt_sum_ms / double(st.rtt_samples) : 0.0;
    }
    s.stale_bytes = link_counters_->stale_bytes.load();
    s.foreign_replies = link_counters_->foreign_replies.load();
    s.resyncs = link_counters_->resyncs.load();
    s.reconnects = link_counters_->reconnects.load();
    s.connect_failures = link_counters_->connect_failures.load();
    return s;
}

bool Host::connected(size_t endpoint) const
{
    return endpoint < links_.size() && links_[endpoint]->connected();
}

void Host::kick()
{
    std::lock_guard<std::mutex> lock(mutex_);
    kicked_ = true;
    wake_cv_.notify_all();
}

// Waits `d`, or less when stopped (or kicked, if asked). False when stopping.
// A zero wait (poll_interval 0) only looks at the flags: a timed wait whose
// deadline has already passed still sleeps in the kernel for the timer
// slack, which would cut the request rate of a short list.
bool Host::sleep_for(std::chrono::milliseconds d, bool wake_on_kick)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (d.count() > 0)
        wake_cv_.wait_for(lock, d, [&] { return stop_ || (wake_on_kick && kicked_); });
    if (wake_on_kick)
        kicked_ = false;
    return !stop_;
}

bool Host::stopping() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return stop_;
}

void Host::notify_done(int source_type, int source_id, int result)
{
    std::lock_guard<std::mutex> lock(mutex_);
    // Results nobody waits for (a write whose caller only uses the hook)
    // would pile up in a host that runs for months: the oldest are
    // forgotten once kKeptResults newer ones have come.
    const auto key = std::make_pair(source_type, source_id);
    done_[key] = result;
    done_order_.push_back(key);
    while (done_order_.size() > kKeptResults) {
        done_.erase(done_order_.front());
        done_order_.pop_front();
    }
    if (result == int(DoneResult::Ok))
        ++stats_.write_done_ok;
    else
        ++stats_.write_done_failed;
    done_cv_.notify_all();
}

int Host::route(int station) const
{
    for (size_t i = 0; i < links_.size(); ++i)
        for (int s : links_[i]->endpoint().stations)
            if (s == station)
                return int(i);
    return 0;
}

} // namespace plchost
