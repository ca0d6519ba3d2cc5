// Members of a job record read as texts and truth values, whatever type the cloud has sent.
#include "tests/fakes/agent_test.h"

#include "jobs/job_record.h"

class JobRecord : public AgentTest {};

TEST_F(JobRecord, ATextIsReadAsItIs) {
    EXPECT_EQ(text_of(json(R"({"msg":"a text"})"), "msg"), "a text");
}

TEST_F(JobRecord, ANumberAndATruthValueAreReadAsTheirText) {
    EXPECT_EQ(text_of(json(R"({"msg":42})"), "msg"), "42");
    EXPECT_EQ(text_of(json(R"({"msg":-1})"), "msg"), "-1");
    EXPECT_EQ(text_of(json(R"({"msg":true})"), "msg"), "true");
}

TEST_F(JobRecord, WhatHasNoTextIsReadAsEmpty) {
    for (const char *record :
         {R"({"msg":{"a":1}})", R"({"msg":["a"]})", R"({"msg":null})", "{}", "null", "[1]", "7"})
        EXPECT_EQ(text_of(json(record), "msg"), "") << record;
}

TEST_F(JobRecord, ATruthValueIsWhatConvertsToTrue) {
    for (const char *record : {R"({"ack":true})", R"({"ack":1})", R"({"ack":2.5})"})
        EXPECT_TRUE(is_true(json(record), "ack")) << record;
    for (const char *record : {R"({"ack":false})", R"({"ack":0})", R"({"ack":null})", R"({"ack":"true"})",
                               R"({"ack":{}})", "{}", "[true]", "null"})
        EXPECT_FALSE(is_true(json(record), "ack")) << record;
}
