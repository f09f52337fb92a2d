// Loads libplcdriver.so with dlopen, runs traffic through its exported
// functions against plcsim over loopback, and unloads it with dlclose, round
// after round. Meant to run under valgrind (or any leak checker): whatever the
// library allocates must be released when it is unloaded.
//
// Each round checks that it got a fresh driver (the previous one was really
// unloaded: dlopen with RTLD_NOLOAD finds nothing after dlclose, and the new
// driver object starts empty), that the values written in the previous round
// are read back from the PLC, and that every write and one-shot read is
// reported as the driver's rules say (a write to a station the PLC does not
// serve is given up and reported failed).
//
//   dlopen_cycles [--rounds N] [--check-growth] [--verbose]
//
// --check-growth compares the heap in use after the second round with the
// heap in use after the last one (mallinfo2); it must not grow by more than
// a few hundred bytes. Exit status 0 when every check passed.
#include "Communication_Protocol.h" // the records only; every function is looked up with dlsym
#include "driver_test_support.h"    // make_com_info only: nothing of it that calls the driver is used
#include "plcsim_process.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#ifndef PLCDRIVER_LIBRARY
#error "PLCDRIVER_LIBRARY (path of libplcdriver.so) must be defined"
#endif
#ifndef PLCSIM_PATH
#error "PLCSIM_PATH must be defined"
#endif

namespace {

int g_failures = 0;

void check(bool ok, const std::string &what)
{
    if (!ok) {
        ++g_failures;
        std::fprintf(stderr, "dlopen_cycles: FAILED: %s\n", what.c_str());
    }
}

// The exported functions, resolved from one loaded copy of the library.
struct Api {
    void *handle = nullptr;
    decltype(&::SetComInfo) set_com_info = nullptr;
    decltype(&::FlashLocalRegister) flash_local_register = nullptr;
    decltype(&::RegistCallBackFuncIntf) register_callbacks = nullptr;
    decltype(&::PLCAddressChangeIntef) parse_address = nullptr;
    decltype(&::ReCreatReadVarList) rebuild_read_list = nullptr;
    decltype(&::AddListOnceReadVar) add_once_read = nullptr;
    decltype(&::ComCommunication) com_communication = nullptr;
    decltype(&::DataCom) data_com = nullptr;
    decltype(&::EnCommStation) enable_station = nullptr;
    decltype(&::GetRegisterData) get_register_data = nullptr;
    decltype(&::SetRegisterData) set_register_data = nullptr;
    decltype(&::QueryFinishFlag) query_finish_flag = nullptr;
    Communication_Protocol *driver = nullptr;

    template <typename F> bool resolve(F &f, const char *name)
    {
        f = reinterpret_cast<F>(dlsym(handle, name));
        check(f != nullptr, std::string("symbol ") + name + " not found");
        return f != nullptr;
    }

    bool load()
    {
        handle = dlopen(PLCDRIVER_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            check(false, std::string("dlopen: ") + dlerror());
            return false;
        }
        bool ok = resolve(set_com_info, "SetComInfo") & resolve(flash_local_register, "FlashLocalRegister") &
                  resolve(register_callbacks, "RegistCallBackFuncIntf") &
                  resolve(parse_address, "PLCAddressChangeIntef") & resolve(rebuild_read_list, "ReCreatReadVarList") &
                  resolve(add_once_read, "AddListOnceReadVar") & resolve(com_communication, "ComCommunication") &
                  resolve(data_com, "DataCom") & resolve(enable_station, "EnCommStation") &
                  resolve(get_register_data, "GetRegisterData") & resolve(set_register_data, "SetRegisterData") &
                  resolve(query_finish_flag, "QueryFinishFlag");
        driver = static_cast<Communication_Protocol *>(dlsym(handle, "PLC_driver"));
        check(driver != nullptr, "symbol PLC_driver not found");
        return ok && driver;
    }
};

// Callbacks: plain functions in this program, reported per identity.
std::map<std::pair<int, int>, std::vector<int>> g_done; // (source_type, source_id) -> results
int g_read_done = 0;

void on_write_done(int, int source_type, int source_id, int result)
{
    g_done[{source_type, source_id}].push_back(result);
}

void on_read_done(QList<RW_VAR> *list, int, int)
{
    check(list != nullptr && list->isEmpty(), "read-done list not empty");
    ++g_read_done;
}

int connect_to(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(uint16_t(port));
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

// Reads `want` bytes within timeout_ms; returns what arrived.
void read_some(int fd, size_t want, int timeout_ms, QByteArray *out)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    char buf[512];
    size_t got = 0;
    while (got < want) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || ::poll(&p, 1, int(left)) <= 0)
            return;
        const ssize_t n = ::recv(fd, buf, std::min(sizeof buf, want - got), 0);
        if (n <= 0)
            return;
        out->append(buf, int(n));
        got += size_t(n);
    }
}

// One Modbus TCP exchange of the request in flight: the frame out, the reply
// (MBAP header, then the rest its length field announces) back.
QByteArray exchange(int fd, const Protocol &p)
{
    QByteArray reply;
    if (::send(fd, p.frame.constData(), size_t(std::min(p.frame_len, int(p.frame.size()))), MSG_NOSIGNAL) < 0)
        return reply;
    if (p.reply_len == 0)
        return reply;
    read_some(fd, 7, 2000, &reply);
    if (reply.size() == 7) {
        const int length = (uchar(reply[4]) << 8) | uchar(reply[5]);
        if (length >= 2 && length <= 254)
            read_some(fd, size_t(length - 1), 2000, &reply);
    }
    return reply;
}

std::vector<uint16_t> words_of(const QByteArray &b)
{
    std::vector<uint16_t> w;
    for (int i = 0; i + 1 < b.size(); i += 2)
        w.push_back(uint16_t(uchar(b[i]) | (uchar(b[i + 1]) << 8)));
    return w;
}

// One round: load, set up, traffic, checks, unload.
void round_trip(int round, int port, std::vector<uint16_t> *previous)
{
    Api api;
    if (!api.load())
        return;
    Communication_Protocol &d = *api.driver;
    const std::string r = "round " + std::to_string(round) + ": ";
    // A fresh driver object: nothing left from the previous copy.
    check(d.com_info == nullptr && d.read_list.isEmpty() && d.write_list.isEmpty() && d.request_queue.isEmpty() &&
              d.transaction_ids[1] == 0 && d.word_mirror.isEmpty(),
          r + "the driver object is not fresh (the library was not unloaded)");

    ComInfo info = make_com_info();
    info.retry_limit = 2;
    info.host_handle = 7;
    std::vector<uint8_t> bits(4096), words(4096), third(4096);
    g_done.clear();
    g_read_done = 0;
    api.set_com_info(&info);
    api.flash_local_register(bits.data(), words.data(), third.data());
    api.register_callbacks(&on_write_done, &on_read_done);
    api.enable_station(-1, 1);

    QList<HostReadVar> list;
    auto add = [&](int kind, const char *address, int count) {
        HostReadVar v;
        v.reg_kind = quint8(kind);
        v.station = 1;
        v.address_text = QString::fromLatin1(address);
        v.name_text = QStringLiteral("tag");
        v.count = count;
        list.append(v);
    };
    add(4, "0", 8);
    add(3, "0", 4);
    add(2, "0", 4);
    add(5, "256.0", 16); // the bits of word 128
    check(api.rebuild_read_list(&list) > 0, r + "empty read list");
    check(api.parse_address(4, QStringLiteral("12")) == 12, r + "address parse");
    check(api.query_finish_flag() == 1, r + "QueryFinishFlag");

    const int fd = connect_to(port);
    check(fd >= 0, r + "cannot connect to plcsim");
    // Runs the cycle until `passes` more passes over the read list have been
    // answered and `reports` write-done callbacks have come (at most 400 steps).
    auto run = [&](int passes, size_t reports) {
        int seen = 0;
        for (int step = 0; fd >= 0 && step < 400; ++step) {
            Protocol *p = api.com_communication();
            if (!p) {
                info.cycle_done = 0;
                p = api.com_communication();
            }
            if (!p)
                return false;
            QByteArray reply = exchange(fd, *p);
            RW_VAR *ret = api.data_com(&reply, reply.size());
            if ((ret->status == 1 || ret->status == 100) && info.cycle_done == 1) {
                info.cycle_done = 0;
                ++seen;
            }
            if (seen >= passes && g_done.size() >= reports)
                return true;
        }
        return false;
    };

    // First the read list alone: the mirror then holds what the PLC holds,
    // which is what the previous round wrote.
    check(run(1, 0), r + "no pass over the read list");
    if (!previous->empty()) {
        QByteArray out;
        api.get_register_data(nullptr, 4, QStringLiteral("0"), 1, &out, 8);
        check(words_of(out) == *previous, r + "the words read back are not the ones the last round wrote");
    }

    // Writes: eight words, one bit (read-modify-write pair), and a write to a
    // station the PLC does not serve (given up, reported 2); a one-shot read.
    std::vector<uint16_t> values;
    QByteArray data;
    for (int i = 0; i < 8; ++i) {
        const uint16_t v = uint16_t(0x1000 * (round % 15 + 1) + i);
        values.push_back(v);
        data.append(char(v & 0xFF));
        data.append(char(v >> 8));
    }
    const QString bit_address = QStringLiteral("256.") + QString::number(round % 8);
    api.set_register_data(QStringLiteral("w"), 4, QStringLiteral("0"), 1, &data, 8, 1, 1);
    QByteArray bit(1, char(round & 1));
    api.set_register_data(QStringLiteral("b"), 5, bit_address, 1, &bit, 1, 1, 2);
    api.set_register_data(QStringLiteral("x"), 4, QStringLiteral("0"), 9, &data, 2, 1, 3);
    RW_VAR once;
    once.source_type = 2;
    once.source_id = 4;
    once.reg_kind = 3;
    once.station = 1;
    once.address_text = QStringLiteral("0");
    once.count = 4;
    api.add_once_read(&once, 0);
    api.enable_station(5, 0);
    api.enable_station(5, 1);
    check(run(2, 4), r + "the writes and the one-shot read did not finish");
    if (fd >= 0)
        ::close(fd);

    auto result = [&](int type, int id) {
        auto it = g_done.find({type, id});
        return it == g_done.end() ? std::vector<int>() : it->second;
    };
    check(result(1, 1) == std::vector<int>{1}, r + "word write not reported once as done");
    check(result(1, 2) == std::vector<int>{1}, r + "bit write not reported once as done");
    check(result(1, 3) == std::vector<int>{2}, r + "write to an absent station not reported once as failed");
    check(result(2, 4) == std::vector<int>{1}, r + "one-shot read not reported once as done");
    check(g_read_done == 1, r + "expected one read-done callback, got " + std::to_string(g_read_done));
    QByteArray out;
    api.get_register_data(nullptr, 4, QStringLiteral("0"), 1, &out, 8);
    check(words_of(out) == values, r + "mirror does not hold the words written");
    QByteArray bit_out;
    api.get_register_data(nullptr, 5, bit_address, 1, &bit_out, 1);
    check(bit_out.size() == 1 && bit_out[0] == char(round & 1), r + "mirror does not hold the bit written");
    *previous = values;

    if (dlclose(api.handle) != 0)
        check(false, r + "dlclose: " + dlerror());
    void *still = dlopen(PLCDRIVER_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    check(still == nullptr, r + "the library is still loaded after dlclose");
    if (still)
        dlclose(still);
}

} // namespace

int main(int argc, char **argv)
{
    int rounds = 20;
    bool check_growth = false;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--rounds" && i + 1 < argc)
            rounds = std::max(1, std::min(100000, std::atoi(argv[++i])));
        else if (a == "--check-growth")
            check_growth = true;
        else if (a == "--verbose")
            verbose = true;
        else {
            std::fprintf(stderr, "usage: dlopen_cycles [--rounds N] [--check-growth] [--verbose]\n");
            return 2;
        }
    }
    PlcsimProcess sim(PLCSIM_PATH, {"--static"});
    std::string error;
    if (!sim.start(&error)) {
        std::fprintf(stderr, "dlopen_cycles: %s\n", error.c_str());
        return 1;
    }
    std::vector<uint16_t> previous;
    size_t heap_after_second = 0;
    for (int round = 0; round < rounds; ++round) {
        round_trip(round, sim.modbus_port(), &previous);
        if (verbose)
            std::printf("round %d: heap in use %zu bytes\n", round, size_t(mallinfo2().uordblks));
        if (round == 1)
            heap_after_second = mallinfo2().uordblks;
    }
    const size_t heap_at_end = mallinfo2().uordblks;
    std::printf("dlopen_cycles: %d rounds of dlopen, traffic and dlclose; %d failed checks\n", rounds, g_failures);
    if (check_growth || verbose)
        std::printf("dlopen_cycles: heap in use after round 2: %zu bytes, at the end: %zu bytes\n", heap_after_second,
                    heap_at_end);
    if (check_growth && rounds > 2)
        check(heap_at_end <= heap_after_second + 512, "heap grew by " +
                                                          std::to_string(heap_at_end - heap_after_second) +
                                                          " bytes over " + std::to_string(rounds - 2) + " rounds");
    return g_failures == 0 ? 0 : 1;
}
