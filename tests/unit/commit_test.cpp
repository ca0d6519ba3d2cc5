// Making a configuration permanent and announcing it.
#include "tests/unit/config_bed.h"

#include "config/apply.h"
#include "config/apply_progress.h"
#include "config/commit.h"

using testing::AllOf;
using testing::IsEmpty;
using testing::IsNull;

class Commit : public ConfigTest {};

TEST_F(Commit, TheRunningConfigurationBecomesTheOneTheDeviceBootsWith) {
    given_config(RUNNING, RUNNING_HASH, new_config());
    write_text(TIMER, "{}");
    write_text(MODIFIED, "");

    commit_running_config();

    EXPECT_EQ(file_text(SAVED), new_config());
    EXPECT_EQ(file_text(SAVED_HASH), fakes::hash_of(json(new_config())));
    EXPECT_THAT(calls(),
                ListIs("copy_file /var/volatile/config/config.running /var/data/orv/config.json",
                       "copy_file /var/volatile/config/config.running.hash /var/data/orv/config.hash",
                       "store_meta_file", "delete_file /var/data/orv/FAILSAFE_TIMER",
                       "delete_file /var/run/CONFIG_MODIFIED", "sync_to_fs 2",
                       "save_hw_config_section_to_nv"));
    EXPECT_FALSE(exists(TIMER));
    EXPECT_FALSE(exists(MODIFIED));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Commit, GoesOnAfterACopyThatFails) {
    fakes::will_return("copy_file", {-1, -1});
    fakes::will_return("store_meta_file", {-1});

    commit_running_config();

    EXPECT_EQ(calls().back(), "save_hw_config_section_to_nv");
}

TEST_F(Commit, EveryChangedAreaIsAnnouncedInTheOrderOfTheList) {
    publish_config_updates(client, "77", json(R"([{"path":"network.wireless.cell"}, {"path":"apps"}])"));

    const auto sent = published();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].topic, "v1/device/config/network.wireless.cell/update");
    EXPECT_EQ(sent[1].topic, "v1/device/config/apps/update");
    for (const auto &message : sent) {
        EXPECT_EQ(message.payload, "77");
        EXPECT_THAT(message.message_id, IsNull());
    }
}

TEST_F(Commit, NoChangeIsNotAnnounced) {
    publish_config_updates(client, "77", json("[]"));
    publish_config_updates(client, "77", Json::Value());

    EXPECT_THAT(published(), IsEmpty());
}

TEST_F(Commit, CandidatesAreDeletedInTheirOrder) {
    delete_new_config_files();

    EXPECT_THAT(calls(), ListIs("delete_file /var/volatile/config/config.new",
                                "delete_file /var/volatile/config/config.new.hash",
                                "delete_file /var/data/orv/config.new"));
}

TEST_F(Commit, TheMarkersOfAnUncommittedChangeAreDeleted) {
    clear_failsafe_markers();

    EXPECT_THAT(calls(),
                ListIs("delete_file /var/data/orv/FAILSAFE_TIMER", "delete_file /var/run/CONFIG_MODIFIED"));
}

TEST_F(Commit, WhatAnApplyWouldBeResumedFromIsDeletedAndFlushed) {
    clear_config_job_files();

    EXPECT_THAT(calls(),
                ListIs("delete_file /var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE",
                       "delete_file /var/data/orv/ACTIVE_JOB", "delete_file /var/volatile/config/config.new",
                       "delete_file /var/volatile/config/config.new.hash",
                       "delete_file /var/data/orv/config.new", "sync_to_fs 2"));
}
