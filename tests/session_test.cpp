// The C++ door: what it promises beyond the calls behind it.
#include "dolm_session.hpp"

#include <gtest/gtest.h>

#include "proof/full_set.h"

namespace full_set = dolm::proof::full_set;

namespace {

using dolmstorage::Failure;
using dolmstorage::make_vync_cfg;
using dolmstorage::Session;
using dolmstorage::Set;
using dolmstorage::store_of_vync_cfg;

Set make_set(const std::vector<full_set::SetFile> &files = full_set::default_set) {
    const full_set::FlashSet made(files);
    return {made.orvel, {}, made.ftbl, made.qfs, made.efs, made.sku};
}

// The numbers that a refused call's reports carry; empty if it was not refused.
std::vector<int> reports_of(auto &&refused) {
    std::vector<int> numbers;
    try {
        refused();
        ADD_FAILURE() << "not refused";
    } catch (const Failure &failure) {
        for (const auto &report : failure.reports()) {
            numbers.push_back(report.number);
            EXPECT_NE(std::string(failure.what()).find(to_string(report)), std::string::npos);
        }
    }
    return numbers;
}

TEST(SessionTest, WhatIsSavedIsThereInTheNextSession) {
    Set saved;
    {
        Session session(make_set());
        EXPECT_TRUE(session.deployed());
        EXPECT_EQ(session.nvar("afs/plain").text(), "from flash");
        EXPECT_FALSE(session.nvar("afs/trailer").writable);
        session.set("afs/plain", "longer than before");
        session.set("/home/efs/plain", "");
        session.nvar("efs/long").value[0] = 'X';
        // A part of the value itself, which the change moves.
        session.set("afs/long", session.nvar("afs/long").value.subspan(1500));
        saved = session.save();
        session.set("afs/plain", "not saved");
    }
    EXPECT_FALSE(qoFcsIsInitialized());

    Session next(std::move(saved));
    EXPECT_EQ(next.nvar("afs/plain").text(), "longer than before");
    EXPECT_EQ(next.nvar("efs/plain").text(), "");
    EXPECT_EQ(next.nvar("efs/long").text(), "X" + std::string(4999, 'E'));
    EXPECT_EQ(next.nvar("afs/long").text(), std::string(500, 'L'));
    EXPECT_EQ(next.nvar("afs/plain", FCS_FILE_VYN_CFG).text(), "longer than before");
    EXPECT_EQ(next.nvar("afs/plain", FCS_FILE_ORVEL_CFG).text(), "base");
    EXPECT_TRUE(next.reports().empty());
}

TEST(SessionTest, FailuresCarryTheirReports) {
    EXPECT_EQ(reports_of([] { Session({}); }), (std::vector{344}));
    Set damaged = make_set();
    damaged.qfs_image.assign(damaged.qfs_image.size(), 0);
    EXPECT_EQ(reports_of([&] { Session session(damaged); }), (std::vector{1, 342}));
    EXPECT_FALSE(qoFcsIsInitialized()) << "the tables were up when the flash stage failed";

    // The library would start up, on empty tables.
    Set other = make_set();
    ++other.sku;
    EXPECT_EQ(reports_of([&] { Session session(other); }), std::vector<int>{});

    // A file that the flash lacks: a warning at first, and a failure of save.
    std::vector<full_set::SetFile> files = full_set::default_set;
    files[1].flash.reset();
    Session session(make_set(files));
    ASSERT_EQ(session.reports().size(), 1u);
    EXPECT_EQ(
        to_string(session.reports()[0]),
        "warning 0: File \"/home/afs/plain\" found in orvel.cfg, but missing in deployed VFS. "
        "The file will be skipped");
    EXPECT_EQ(reports_of([&] { session.nvar("no/such"); }), (std::vector{39}));
    EXPECT_EQ(reports_of([&] { session.set("no/such", ""); }), (std::vector{39}));
    EXPECT_EQ(reports_of([&] { session.save(); }), (std::vector{339, 348}));
    EXPECT_FALSE(session.contains("afs/long")) << "the session is over";
    EXPECT_EQ(session.reports().size(), 5u);
}

TEST(SessionTest, AValueOverItsLimitIsRefusedBeforeItSpoilsTheSave) {
    Session session(make_set());
    EXPECT_EQ(reports_of([&] { session.set("afs/plain", std::string(1001, 'x')); }),
              std::vector<int>{});
    EXPECT_EQ(session.nvar("afs/plain").text(), "from flash");
    session.set("afs/plain", std::string(1000, 'x'));
    session.save();
    EXPECT_EQ(session.nvar("afs/plain").text(), std::string(1000, 'x'));
}

TEST(SessionTest, OneAtATimeAndNoReportsBehindIt) {
    const Set set = make_set();
    {
        Session session(set);
        EXPECT_THROW(Session{set}, std::logic_error);
        EXPECT_EQ(session.nvar("afs/plain").text(), "from flash") << "the first one lives on";
    }
    // The library still holds the callback of the session that is gone.
    EXPECT_FALSE(qoQfsNvarTerm(true));
    EXPECT_TRUE(Session{set}.contains("afs/plain"));
}

TEST(SessionTest, HeadOfVyncCfg) {
    const dolmstorage::Bytes store(0x12345, 7);
    dolmstorage::Bytes vync_cfg = make_vync_cfg(store);
    EXPECT_EQ(dolmstorage::Bytes(vync_cfg.begin(), vync_cfg.begin() + 16),
              (dolmstorage::Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0x45, 0x23, 0x01, 0, 0, 0, 0, 0}));
    vync_cfg.push_back(0xFF); // a partition may be longer than what is in it
    EXPECT_TRUE(std::ranges::equal(store_of_vync_cfg(vync_cfg), store));
    vync_cfg.resize(16 + store.size() - 1);
    EXPECT_THROW(store_of_vync_cfg(vync_cfg), Failure);
    vync_cfg.resize(15);
    EXPECT_THROW(store_of_vync_cfg(vync_cfg), Failure);
}

} // namespace
