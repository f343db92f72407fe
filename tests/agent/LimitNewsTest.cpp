#include "LimitNews.h"

#include <gtest/gtest.h>

using namespace agent;

namespace {

using Lines = std::vector<std::string>;

TEST(LimitNewsTest, AChangeIsDueOnceAndWhenItHasSettled) {
    LimitNews news;
    EXPECT_FALSE(news.IsDue(10));
    news.OnUpdate();
    EXPECT_FALSE(news.IsDue(10));
    EXPECT_FALSE(news.IsDue(11));
    news.OnUpdate();
    EXPECT_FALSE(news.IsDue(12)) << "the later change takes its time too";
    EXPECT_FALSE(news.IsDue(13));
    EXPECT_TRUE(news.IsDue(14));
    EXPECT_FALSE(news.IsDue(15));
}

int g_wakes = 0;

TEST(LimitNewsTest, AChangeWakesAndSaysWhenItIsDue) {
    g_wakes = 0;
    LimitNews news([] { ++g_wakes; });
    EXPECT_EQ(0, news.DueAt());
    news.OnUpdate();
    EXPECT_EQ(1, g_wakes) << "nobody else tells the thread that sleeps";
    EXPECT_FALSE(news.IsDue(10));
    EXPECT_EQ(12, news.DueAt());
    EXPECT_TRUE(news.IsDue(12));
    EXPECT_EQ(0, news.DueAt());
}

TEST(LimitNewsTest, TheSameRefusalOfTheSameLimitIsToldOnce) {
    LimitNews news;
    StatusReport report;
    EXPECT_EQ(Lines{}, news.TakeNews(report, {}));
    report.mode = 4;
    EXPECT_EQ(Lines{"a"}, news.TakeNews(report, {"a"}));
    EXPECT_EQ(Lines{}, news.TakeNews(report, {"a"}));
    EXPECT_EQ((Lines{"a", "b"}), news.TakeNews(report, {"a", "b"}));
    report.mode = 5;
    EXPECT_EQ((Lines{"a", "b"}), news.TakeNews(report, {"a", "b"})) << "asked for anew";
    EXPECT_EQ(Lines{}, news.TakeNews(report, {}));
    EXPECT_EQ((Lines{"a", "b"}), news.TakeNews(report, {"a", "b"})) << "it held in between";
}

}  // namespace
