// SPDX-License-Identifier: Apache-2.0
#include "gateway/fleet/identity.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using runelgw::AccessList;
using runelgw::Claim;
using runelgw::Decision;
using runelgw::judge;
using runelgw::NewDevices;
using runelgw::Standing;
using runelgw::Verdict;
using Match = AccessList::Match;
using Verdicts = std::vector<Verdict>;

constexpr char kHome[] = "10.0.0.1";
constexpr char kAway[] = "10.0.0.2";

Standing welcome(const std::string& pinAddress = "", const std::string& pinCertificate = "") {
  return {NewDevices::welcome, Decision::approved, pinAddress, pinCertificate};
}

TEST(GatewayIdentity, Row1ADeniedDeviceIsDeniedEverywhere) {
  Standing standing = welcome(kHome);
  standing.decision = Decision::denied;
  EXPECT_EQ(
      (Verdicts{Verdict::denied, Verdict::denied, Verdict::denied}),
      judge(standing,
            {{kHome, "", Match::none}, {kAway, "", Match::none}, {kHome, "x", Match::allowed}}));
}

TEST(GatewayIdentity, Row2TheDenyListIsStronger) {
  EXPECT_EQ(Verdicts{Verdict::denied}, judge(welcome(kHome), {{kHome, "", Match::denied}}));
  // It says nothing about the connection from elsewhere.
  EXPECT_EQ((Verdicts{Verdict::denied, Verdict::work}),
            judge(welcome(), {{kAway, "", Match::denied}, {kHome, "", Match::none}}));
}

TEST(GatewayIdentity, Row3OnlyTheAllowListIsWorkedOn) {
  Standing standing = welcome();
  standing.mode = NewDevices::refused;
  EXPECT_EQ(Verdicts{Verdict::denied}, judge(standing, {{kHome, "", Match::none}}));
  EXPECT_EQ(Verdicts{Verdict::work}, judge(standing, {{kHome, "", Match::allowed}}));
  standing.decision = Decision::waiting;
  EXPECT_EQ(Verdicts{Verdict::work}, judge(standing, {{kHome, "", Match::allowed}}));
}

TEST(GatewayIdentity, Row4AConnectionFromElsewhereIsQuarantined) {
  EXPECT_EQ(Verdicts{Verdict::quarantined}, judge(welcome(kHome), {{kAway, "", Match::none}}));
  EXPECT_EQ((Verdicts{Verdict::quarantined, Verdict::work}),
            judge(welcome(kHome), {{kAway, "", Match::none}, {kHome, "", Match::none}}));
  EXPECT_EQ(Verdicts{Verdict::quarantined},
            judge(welcome("", "gw.example"), {{kHome, "", Match::none}}));
  EXPECT_EQ(Verdicts{Verdict::quarantined},
            judge(welcome("", "gw.example"), {{kHome, "other.example", Match::none}}));
}

TEST(GatewayIdentity, Row4ACertificateAllowsAChangeOfAddress) {
  EXPECT_EQ(Verdicts{Verdict::work},
            judge(welcome("", "gw.example"), {{kAway, "gw.example", Match::none}}));
  EXPECT_EQ(Verdicts{Verdict::quarantined},  // both are pinned
            judge(welcome(kHome, "gw.example"), {{kAway, "gw.example", Match::none}}));
  EXPECT_EQ(Verdicts{Verdict::work},
            judge(welcome(kHome, "gw.example"), {{kHome, "gw.example", Match::none}}));
}

TEST(GatewayIdentity, Row5NewDevicesWaitForApproval) {
  Standing standing{NewDevices::wait, Decision::waiting, kHome, ""};
  EXPECT_EQ(Verdicts{Verdict::waiting}, judge(standing, {{kHome, "", Match::none}}));
  EXPECT_EQ(Verdicts{Verdict::quarantined}, judge(standing, {{kAway, "", Match::none}}));
  EXPECT_EQ(Verdicts{Verdict::work}, judge(standing, {{kHome, "", Match::allowed}}));
  standing.decision = Decision::approved;
  EXPECT_EQ(Verdicts{Verdict::work}, judge(standing, {{kHome, "", Match::none}}));
  standing = {NewDevices::welcome, Decision::waiting, kHome, ""};  // the mode was changed
  EXPECT_EQ(Verdicts{Verdict::work}, judge(standing, {{kHome, "", Match::none}}));
}

TEST(GatewayIdentity, Row6TheOldestAtThePinIsUsed) {
  EXPECT_EQ((Verdicts{Verdict::work, Verdict::quarantined}),
            judge(welcome(kHome), {{kHome, "", Match::none}, {kHome, "", Match::none}}));
  EXPECT_EQ((Verdicts{Verdict::work, Verdict::quarantined}),
            judge(welcome("", "gw"), {{kHome, "gw", Match::none}, {kAway, "gw", Match::none}}));
}

TEST(GatewayIdentity, Row6WhenItEndsTheNextOneIsUsed) {
  EXPECT_EQ(Verdicts{Verdict::work}, judge(welcome(kHome), {{kHome, "", Match::none}}));
  EXPECT_EQ((Verdicts{Verdict::quarantined, Verdict::work}),
            judge(welcome(kHome), {{kAway, "", Match::none}, {kHome, "", Match::none}}));
}

TEST(GatewayIdentity, Row7WithoutAPinNoneOfSeveralIsUsed) {
  EXPECT_EQ((Verdicts{Verdict::quarantined, Verdict::quarantined}),
            judge(welcome(), {{kHome, "", Match::none}, {kAway, "", Match::none}}));
  EXPECT_EQ((Verdicts{Verdict::quarantined, Verdict::quarantined}),
            judge(welcome(), {{kHome, "", Match::none}, {kHome, "", Match::none}}));
  EXPECT_EQ(Verdicts{Verdict::work}, judge(welcome(), {{kAway, "", Match::none}}));
}

TEST(GatewayIdentity, Row8OtherwiseItWorks) {
  EXPECT_EQ(Verdicts{Verdict::work}, judge(welcome(kHome), {{kHome, "any", Match::none}}));
  EXPECT_TRUE(judge(welcome(), {}).empty());
}

// The table once more, a row after the other, as it is written.
Verdict judgeByTable(const Standing& standing, const std::vector<Claim>& claims,
                     std::size_t which) {
  const bool pinned = standing.pinAddress != "" || standing.pinCertificate != "";
  std::size_t olderThere = 0;
  std::size_t there = 0;
  Verdict result = Verdict::work;
  for (std::size_t at = 0; at < claims.size(); ++at) {
    const Claim& claim = claims[at];
    Verdict row = Verdict::work;
    if (standing.decision == Decision::denied) {
      row = Verdict::denied;  // 1
    } else if (claim.listed == Match::denied) {
      row = Verdict::denied;  // 2
    } else if (standing.mode == NewDevices::refused && claim.listed == Match::none) {
      row = Verdict::denied;  // 3
    } else if (standing.pinAddress != "" && claim.address != standing.pinAddress) {
      row = Verdict::quarantined;  // 4
    } else if (standing.pinCertificate != "" && claim.certificate != standing.pinCertificate) {
      row = Verdict::quarantined;  // 4
    } else if (standing.mode == NewDevices::wait && standing.decision == Decision::waiting &&
               claim.listed == Match::none) {
      row = Verdict::waiting;  // 5
    }
    if (at == which) {
      result = row;
    } else if (row == Verdict::work) {
      ++there;
      olderThere += at < which ? 1 : 0;
    }
  }
  if (result != Verdict::work) {
    return result;
  }
  return (pinned ? olderThere : there) > 0 ? Verdict::quarantined : Verdict::work;  // 6, 7, 8
}

// The number of cases.
std::size_t judgeAll(const Standing& standing, const std::vector<Claim>& variants) {
  const std::size_t count = variants.size() + 1;  // the last stands for no connection
  std::size_t cases = 0;
  for (std::size_t number = 0; number < count * count * count; ++number) {
    std::vector<Claim> claims;
    for (std::size_t rest = number, digit = 0; digit < 3; ++digit, rest /= count) {
      if (rest % count != variants.size()) {
        claims.push_back(variants[rest % count]);
      }
    }
    const Verdicts verdicts = judge(standing, claims);
    EXPECT_EQ(claims.size(), verdicts.size());
    EXPECT_LE(std::count(verdicts.begin(), verdicts.end(), Verdict::work), 1);
    for (std::size_t which = 0; which < claims.size(); ++which) {
      if (verdicts[which] != judgeByTable(standing, claims, which)) {
        ADD_FAILURE() << "case " << number << ", connection " << which;
        return cases;
      }
    }
    ++cases;
  }
  return cases;
}

TEST(GatewayIdentity, AllCombinationsOfThreeConnectionsFollowTheTable) {
  std::vector<Claim> variants;
  for (const char* address : {kHome, kAway}) {
    for (const char* certificate : {"", "gw.example"}) {
      for (const Match listed : {Match::none, Match::allowed, Match::denied}) {
        variants.push_back({address, certificate, listed});
      }
    }
  }
  std::size_t cases = 0;
  for (const NewDevices mode : {NewDevices::welcome, NewDevices::wait, NewDevices::refused}) {
    for (const Decision decision : {Decision::waiting, Decision::approved, Decision::denied}) {
      for (const char* pinAddress : {"", kHome}) {
        for (const char* pinCertificate : {"", "gw.example"}) {
          cases += judgeAll({mode, decision, pinAddress, pinCertificate}, variants);
        }
      }
    }
  }
  EXPECT_EQ(36u * 13 * 13 * 13, cases);
}

TEST(GatewayIdentity, TheIdentityIsTheHostidElseTheCertificateElseTheAddress) {
  using runelgw::identityOf;
  EXPECT_EQ(identityOf({"a", kHome, "c"}), identityOf({"a", kAway, ""}));
  EXPECT_NE(identityOf({"a", kHome, ""}), identityOf({"b", kHome, ""}));
  EXPECT_EQ(identityOf({"", kHome, "c"}), identityOf({"", kAway, "c"}));
  EXPECT_EQ(identityOf({"", kHome, ""}), identityOf({"", kHome, ""}));
  EXPECT_NE(identityOf({"", kHome, ""}), identityOf({"", kAway, ""}));
  // A hostid cannot pose as an address or a certificate.
  EXPECT_NE(identityOf({kHome, "", ""}), identityOf({"", kHome, ""}));
  EXPECT_NE(identityOf({"c", "", ""}), identityOf({"", "", "c"}));
  EXPECT_NE(identityOf({"ac", "", ""}), identityOf({"", "c", ""}));
}

TEST(GatewayIdentity, EachByteOfAHostidCounts) {
  std::vector<std::string> identities;
  for (int byte = 0; byte < 256; ++byte) {
    identities.push_back(
        runelgw::identityOf({std::string("x") + static_cast<char>(byte), kHome, ""}));
  }
  std::sort(identities.begin(), identities.end());
  EXPECT_EQ(identities.end(), std::unique(identities.begin(), identities.end()));
}

std::string refusalOf(AccessList& list, const std::string& kind, const std::string& value) {
  const auto result = list.set({kind, value, true, 0, ""});
  return result ? "" : result.error().text();
}

TEST(GatewayAccessList, FindsByEachProperty) {
  AccessList list;
  EXPECT_EQ("", refusalOf(list, "hostid", "gw-1"));
  EXPECT_EQ("", refusalOf(list, "address", "10.1.0.0/16"));
  EXPECT_EQ("", refusalOf(list, "certificate", "gw.example"));
  EXPECT_EQ(Match::allowed, list.find({"gw-1", kHome, ""}));
  EXPECT_EQ(Match::allowed, list.find({"x", "10.1.200.3", ""}));
  EXPECT_EQ(Match::allowed, list.find({"x", kHome, "gw.example"}));
  EXPECT_EQ(Match::none, list.find({"gw-10", kHome, "gw"}));
  EXPECT_EQ(Match::none, list.find({"", "", ""}));
  EXPECT_EQ(Match::none, list.find({"gw.example", "gw-1", "10.1.0.0/16"}));  // other kinds
}

TEST(GatewayAccessList, DeniedIsStrongerInEachOrder) {
  AccessList list;
  ASSERT_TRUE(list.set({"address", "10.0.0.0/8", true, 0, ""}));
  ASSERT_TRUE(list.set({"address", "10.0.0.0/24", false, 0, ""}));
  ASSERT_TRUE(list.set({"address", kAway, true, 0, ""}));
  ASSERT_TRUE(list.set({"hostid", "bad", false, 0, ""}));
  EXPECT_EQ(Match::denied, list.find({"x", kHome, ""}));
  EXPECT_EQ(Match::denied, list.find({"x", kAway, ""}));
  EXPECT_EQ(Match::allowed, list.find({"x", "10.9.0.1", ""}));
  EXPECT_EQ(Match::denied, list.find({"bad", "10.9.0.1", ""}));
}

TEST(GatewayAccessList, EntriesAreReplacedAndRemoved) {
  AccessList list;
  ASSERT_TRUE(list.set({"address", "10.1.2.3/8", true, 5, "note"}));
  ASSERT_TRUE(list.set({"address", "10.0.0.0/8", false, 6, ""}));
  ASSERT_EQ(1u, list.entries().size());
  EXPECT_EQ("10.0.0.0/8", list.entries()[0].value);
  EXPECT_EQ(Match::denied, list.find({"", kHome, ""}));
  EXPECT_FALSE(list.remove("address", "10.0.0.0/9"));
  EXPECT_FALSE(list.remove("hostid", "10.0.0.0/8"));
  EXPECT_TRUE(list.remove("address", "10.255.0.0/8"));
  EXPECT_EQ(Match::none, list.find({"", kHome, ""}));
  EXPECT_TRUE(list.entries().empty());
  ASSERT_TRUE(list.set({"address", "10.0.0.1/32", true, 0, ""}));
  EXPECT_EQ(kHome, list.entries()[0].value);
  EXPECT_TRUE(list.remove("address", kHome));
}

TEST(GatewayAccessList, RefusesWhatItCannotFind) {
  AccessList list;
  EXPECT_EQ("unknown kind 'name': expected hostid, address or certificate",
            refusalOf(list, "name", "x"));
  EXPECT_EQ("the hostid is empty", refusalOf(list, "hostid", ""));
  EXPECT_EQ("'10.0' is not an IPv4 address or network", refusalOf(list, "address", "10.0"));
  EXPECT_TRUE(list.entries().empty());
}

TEST(GatewayAccessList, HostidsMayHaveEveryByte) {
  AccessList list;
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
  }
  ASSERT_EQ("", refusalOf(list, "hostid", all));
  EXPECT_EQ(Match::allowed, list.find({all, "", ""}));
  EXPECT_EQ(Match::none, list.find({all.substr(1), "", ""}));
}

TEST(GatewayAccessList, TellsAddressesFromHostids) {
  EXPECT_STREQ("address", AccessList::kindOf("10.0.0.1"));
  EXPECT_STREQ("address", AccessList::kindOf("10.0.0.0/8"));
  EXPECT_STREQ("hostid", AccessList::kindOf("gw-1"));
}

}  // namespace
