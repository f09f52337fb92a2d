// The first step of the read-list rebuild written out plainly, for the tests
// and the fuzz target that check the driver's rebuild against a step-by-step
// rendering of it: every descriptor with a parsable address becomes a
// record in the units of its kind, grouped per station and kind, each group
// in the runtime's order.
#ifndef PLCDRIVER_READ_LIST_REFERENCE_H
#define PLCDRIVER_READ_LIST_REFERENCE_H

#include "Communication_Protocol.h"
#include "Driver_Internal.h"

#include <QList>

#include <map>
#include <vector>

// groups[station][kind]: the records of one station and kind.
using ReadGroups = std::map<int, std::map<int, std::vector<RW_VAR>>>;

inline ReadGroups group_descriptors(const QList<HostReadVar> &hosts, const ComInfo &info)
{
    ReadGroups groups;
    for (const HostReadVar &h : hosts) {
        const int addr = StringAddressToInt(h.reg_kind, h.address_text);
        if (addr < 0)
            continue;
        RW_VAR r;
        r.source_id = -1;
        r.link_mode = info.link_mode;
        r.link_id = info.local_link_id;
        r.name_text = h.name_text;
        r.address_text = h.address_text;
        r.station = info.station_from_address == 0 ? info.default_station : h.station;
        r.start_addr = addr;
        r.count = h.count;
        r.reg_kind = h.reg_kind;
        Communication_Protocol::update_rw_var(&r);
        groups[r.station][r.reg_kind].push_back(r);
    }
    return groups;
}

#endif
