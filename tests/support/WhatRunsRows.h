#pragma once
// What runs where: plugins, a policy, and the instances that must run then, as "id side source"
// with the session on the user side (the test session is 7). Shared by the manager's own test
// and the one through veqd.

#include "tests/support/PluginWorld.h"

#include <set>
#include <string>
#include <vector>

namespace VEQ::Test {

struct WhatRunsRow {
    const char* what;
    std::vector<TestPluginSpec> embedded;
    std::vector<TestPluginSpec> repository;
    PluginPolicy policy;
    std::set<std::string> expected;
    std::vector<std::string> locked = {};        // an installation holds these plugins' locks
    std::vector<std::string> uninstalling = {};  // and is taking these away
};

inline Json::Value Entry(const std::string& id, const std::string& elevation, const std::string& os = "windows")
{
    return PluginWorld::ClientEntry(id, elevation, os);
}

inline std::vector<WhatRunsRow> WhatRunsRows()
{
    const TestPluginSpec a{"Contoso.A", "PluginA"};
    const TestPluginSpec b{"Contoso.B", "PluginB"};
    const TestPluginSpec userOnly{"Contoso.U", "PluginU", "1.0.0.0", true, false};
    PluginPolicy denyAOnly;
    denyAOnly.controlType = "DenyByDefault";
    denyAOnly.clients.append(Entry("Contoso.A", "both"));
    PluginPolicy none;
    none.enabledPluginType = "none";
    PluginPolicy noSide;
    noSide.sides = "neither";
    PluginPolicy denyNoClients;
    denyNoClients.controlType = "DenyByDefault";
    PluginPolicy embeddedOnly;
    embeddedOnly.enabledPluginType = "embedded";
    PluginPolicy otherOs;
    otherOs.clients.append(Entry("Contoso.A", "both", "linux"));
    PluginPolicy userSide;
    userSide.sides = "user";
    PluginPolicy elevatedSide;
    elevatedSide.sides = "elevated";
    PluginPolicy entryUser;
    entryUser.clients.append(Entry("Contoso.A", "user"));
    PluginPolicy entryBothForUserOnly;
    entryBothForUserOnly.clients.append(Entry("Contoso.U", "both"));
    PluginPolicy entryOtherCase;  // allowed by the entry, sides left to the manifest
    entryOtherCase.controlType = "DenyByDefault";
    entryOtherCase.clients.append(Entry("contoso.u", "elevated"));

    return {
        {"plugins off", {a}, {}, none, {}},
        {"no side", {a}, {}, noSide, {}},
        {"deny by default without clients", {a}, {}, denyNoClients, {}},
        {"all", {a}, {b}, {}, {"Contoso.A elevated Embedded", "Contoso.A user Embedded 7",
                              "Contoso.B elevated Downloaded", "Contoso.B user Downloaded 7"}},
        {"embedded only", {a}, {b}, embeddedOnly, {"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"}},
        {"install lock", {a, b}, {}, {}, {"Contoso.B elevated Embedded", "Contoso.B user Embedded 7"}, {"Contoso.A"}},
        {"uninstall pending", {a, b}, {}, {}, {"Contoso.B elevated Embedded", "Contoso.B user Embedded 7"}, {},
         {"Contoso.A"}},
        {"entry for another OS", {a}, {}, otherOs, {}},
        {"deny by default, one entry", {a, b}, {}, denyAOnly, {"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"}},
        {"repository newer", {{"Contoso.A", "PluginA", "1.0.0.0"}}, {{"Contoso.A", "PluginA", "2.0.0.0"}}, {},
         {"Contoso.A elevated Downloaded", "Contoso.A user Downloaded 7"}},
        {"versions equal", {{"Contoso.A", "PluginA", "2.0.0.0"}}, {{"Contoso.A", "PluginA", "2.0.0.0"}}, {},
         {"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"}},
        {"embedded newer", {{"Contoso.A", "PluginA", "3.0.0.0"}}, {{"Contoso.A", "PluginA", "2.0.0.0"}}, {},
         {"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"}},
        {"repository version unreadable", {{"Contoso.A", "PluginA", "1.0.0.0"}}, {{"Contoso.A", "PluginA", ""}}, {},
         {"Contoso.A elevated Embedded", "Contoso.A user Embedded 7"}},
        {"user side only", {a}, {}, userSide, {"Contoso.A user Embedded 7"}},
        {"elevated side only", {a}, {}, elevatedSide, {"Contoso.A elevated Embedded"}},
        {"entry's side decides", {a}, {}, entryUser, {"Contoso.A user Embedded 7"}},
        {"entry overrides the manifest", {userOnly}, {}, entryBothForUserOnly,
         {"Contoso.U elevated Embedded", "Contoso.U user Embedded 7"}},
        {"entry in other letters allows, manifest decides", {userOnly}, {}, entryOtherCase, {"Contoso.U user Embedded 7"}},
    };
}

}  // namespace VEQ::Test
