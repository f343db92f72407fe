#include "OomAttribution.h"

#include <gtest/gtest.h>

using namespace agent;

namespace {

zel::CgroupNodeStatus Node(zel::CgroupLevel level, const std::string& name, const std::string& group, bool v2) {
    zel::CgroupNodeStatus node;
    node.level = level;
    node.name = name;
    node.group = group;
    node.memory.present = true;
    node.memory.v2 = v2;
    node.memory.path = "/cg/" + group + "/" + name;
    node.memory.limit = 20480;
    node.memory.limitHits = 3;
    node.memory.oomKills = 1;
    node.memory.ownOoms = v2 ? 1 : -1;
    return node;
}

zel::CgroupTreeStatus Tree(bool v2) {
    zel::CgroupTreeStatus tree;
    tree.present = true;
    tree.nodes = {Node(zel::CgroupLevel::kParent, "agent", "", v2), Node(zel::CgroupLevel::kGroup, "main", "", v2),
                  Node(zel::CgroupLevel::kComponent, "Main", "main", v2),
                  Node(zel::CgroupLevel::kGroup, "collect", "", v2),
                  Node(zel::CgroupLevel::kComponent, "Net", "collect", v2)};
    return tree;
}

/// Raises what the kernel raises when the limit of node `limit` is run into.
void Hit(zel::CgroupNodeStatus& node) {
    if (node.memory.v2) {
        ++node.memory.ownOoms;
    } else {
        ++node.memory.limitHits;
    }
}

}  // namespace

class OomAttributionTest : public ::testing::TestWithParam<bool> {};

TEST_P(OomAttributionTest, NamesTheInnermostLimitThatWasReached) {
    struct Case {
        int limit;  // index of the node whose limit was reached, -1: none
        const char* words;
        const char* limitOf;
    };
    for (const Case& c :
         {Case{4, "out of memory at its own limit of 20 MB", "component"},
          Case{3, "out of memory at the limit of its group collect, 20 MB", "group"},
          Case{0, "out of memory at the limit of the whole agent, 20 MB", "agent"},
          Case{-1, "killed because the host ran out of memory, no limit of the agent was reached", "host"}}) {
        zel::CgroupTreeStatus tree = Tree(GetParam());
        OomPicture before = TakeOomPicture(tree);
        ++tree.nodes[4].memory.oomKills;
        if (c.limit >= 0) Hit(tree.nodes[static_cast<size_t>(c.limit)]);
        const std::optional<OomKill> kill = ExplainOomKill(before, tree, "Net");
        ASSERT_TRUE(kill);
        EXPECT_EQ(c.words, kill->words);
        EXPECT_EQ("collect", kill->group);
        EXPECT_EQ(c.limitOf, kill->limitOf);
        EXPECT_EQ(c.limit < 0 ? 0 : 20480, kill->limitKb);
        EXPECT_EQ(c.limit < 0 ? "" : tree.nodes[static_cast<size_t>(c.limit)].memory.path, kill->path);
    }
}

TEST_P(OomAttributionTest, SaysNothingWhereTheKernelCountedNoKill) {
    zel::CgroupTreeStatus tree = Tree(GetParam());
    OomPicture before = TakeOomPicture(tree);
    Hit(tree.nodes[4]);  // reclaim at the limit, nobody died of it
    EXPECT_FALSE(ExplainOomKill(before, tree, "Net"));
    ++tree.nodes[2].memory.oomKills;
    EXPECT_FALSE(ExplainOomKill(before, tree, "Net"));
    EXPECT_FALSE(ExplainOomKill(before, tree, "Unknown"));
}

TEST_P(OomAttributionTest, AnotherGroupsLimitIsNotBlamed) {
    zel::CgroupTreeStatus tree = Tree(GetParam());
    OomPicture before = TakeOomPicture(tree);
    ++tree.nodes[4].memory.oomKills;
    Hit(tree.nodes[1]);
    EXPECT_EQ("killed because the host ran out of memory, no limit of the agent was reached",
              ExplainOomKill(before, tree, "Net").value_or(OomKill()).words);
}

TEST_P(OomAttributionTest, ACounterBelowItsOldValueBeganAnew) {
    zel::CgroupTreeStatus tree = Tree(GetParam());
    for (zel::CgroupNodeStatus& node : tree.nodes) node.memory.oomKills = node.memory.limitHits = 7;
    OomPicture before = TakeOomPicture(tree);
    zel::CgroupNodeStatus& leaf = tree.nodes[4];
    leaf.memory.limitHits = 0;
    leaf.memory.ownOoms = GetParam() ? 0 : -1;
    leaf.memory.oomKills = 0;
    EXPECT_FALSE(ExplainOomKill(before, tree, "Net")) << "made anew, and no kill in it";
    leaf.memory.oomKills = 1;
    Hit(leaf);
    EXPECT_EQ("component", ExplainOomKill(before, tree, "Net").value_or(OomKill()).limitOf);
}

TEST_P(OomAttributionTest, VictimsOfOneMomentAreEachExplained) {
    zel::CgroupTreeStatus tree = Tree(GetParam());
    tree.nodes.push_back(Node(zel::CgroupLevel::kComponent, "Log", "collect", GetParam()));
    OomHistory history([&](zel::CgroupTreeStatus& out) { return out = tree, true; });
    history.BeforeStart(100);
    Hit(tree.nodes[3]);
    ++tree.nodes[4].memory.oomKills;
    ++tree.nodes[5].memory.oomKills;
    EXPECT_EQ("group", history.Explain("Net", 200).value_or(OomKill()).limitOf);
    EXPECT_EQ("group", history.Explain("Log", 200).value_or(OomKill()).limitOf);
    history.Tick(200);
    EXPECT_EQ("group", history.Explain("Log", 201).value_or(OomKill()).limitOf) << "it took longer to end";
    history.Tick(203);
    EXPECT_FALSE(history.Explain("Net", 204)) << "killed by somebody";
}

TEST_P(OomAttributionTest, WhatWasBeforeAStartExplainsNothingAfterIt) {
    zel::CgroupTreeStatus tree = Tree(GetParam());
    bool readable = true;
    OomHistory history([&](zel::CgroupTreeStatus& out) { return out = tree, readable; });
    history.BeforeStart(100);
    ++tree.nodes[4].memory.oomKills;  // a child of the component, which ended by itself later
    Hit(tree.nodes[4]);
    history.BeforeStart(300);
    EXPECT_FALSE(history.Explain("Net", 301));
    ++tree.nodes[4].memory.oomKills;
    EXPECT_EQ("host", history.Explain("Net", 302).value_or(OomKill()).limitOf) << "its limit was reached before";
    readable = false;
    EXPECT_FALSE(history.Explain("Net", 302));
    history.Tick(400);
    readable = true;
    EXPECT_TRUE(history.Explain("Net", 401)) << "nothing was seen in between";
}

INSTANTIATE_TEST_SUITE_P(BothVersions, OomAttributionTest, ::testing::Bool());
