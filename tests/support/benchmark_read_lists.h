// The descriptor lists bench_read_list rebuilds, made here so that a unit
// test can check the rebuild of exactly those lists against the plain
// procedure: n descriptors with shuffled addresses over 0..2n (so many
// duplicates), counts of 1..8, either all in station 1 and kind 3 or spread
// over 16 stations and all 15 kinds. variant picks one of several lists of
// the same size and shape.
#ifndef PLCDRIVER_BENCHMARK_READ_LISTS_H
#define PLCDRIVER_BENCHMARK_READ_LISTS_H

#include "Communication_Protocol.h"

#include <QList>
#include <QString>

#include <random>

// The address text of an address in the unit of the runtime's kind: bit
// kinds take "byte.bit", the others one decimal number.
inline QString address_text_for(int kind, int address)
{
    if (kind == 0 || kind == 1 || kind == 5)
        return QString::number(address / 8) + QLatin1Char('.') + QString::number(address % 8);
    return QString::number(address);
}

inline QList<HostReadVar> make_benchmark_descriptors(int n, bool spread, unsigned variant)
{
    std::mt19937 rng(12345u + unsigned(n) + 7919u * variant);
    std::uniform_int_distribution<int> address(0, 2 * n);
    std::uniform_int_distribution<int> count(1, 8);
    QList<HostReadVar> list;
    list.reserve(n);
    for (int i = 0; i < n; ++i) {
        HostReadVar h;
        h.reg_kind = quint8(spread ? i % 15 : 3);
        h.station = quint8(spread ? 1 + (i / 15) % 16 : 1);
        h.address_text = address_text_for(h.reg_kind, address(rng));
        h.name_text = QStringLiteral("var") + QString::number(i);
        h.count = count(rng);
        list.append(h);
    }
    return list;
}

#endif
