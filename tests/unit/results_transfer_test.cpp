// What a transfer is set up with, in which order, and what is left of it. libcurl's calls go through this
// test; the transfer itself is the test's.
#include "tests/fakes/agent_test.h"

#include "actions/results_upload.h"

#include <curl/curl.h>

#include <cstdarg>
#include <cstring>
#include <functional>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct set_option {
    CURLoption option;
    long number = 0;
    void *pointer = nullptr;
};

std::vector<set_option> options;
std::vector<std::string> header_lines;
std::vector<std::string> done; // "init", "cleanup", ...
bool no_handle = false;
bool no_memory = false;
void *last_grown = nullptr;
std::function<CURLcode()> transfer;

// libcurl's rule: what an option takes is told by its number.
bool takes_number(CURLoption option) {
    return option < CURLOPTTYPE_OBJECTPOINT;
}

const set_option *option_set(CURLoption option) {
    for (const auto &each : options)
        if (each.option == option)
            return &each;
    return nullptr;
}

size_t answer(const std::string &text) {
    std::string own = text; // what comes is not zero-terminated for the callback
    return results_write_callback(own.data(), 1, own.size(), option_set(CURLOPT_WRITEDATA)->pointer);
}

const response_buffer &answer_so_far() {
    return *static_cast<const response_buffer *>(option_set(CURLOPT_WRITEDATA)->pointer);
}

} // namespace

extern "C" {

CURL *__real_curl_easy_init();
CURL *__wrap_curl_easy_init();
CURL *__wrap_curl_easy_init() {
    done.emplace_back("init");
    return no_handle ? nullptr : __real_curl_easy_init();
}

CURLcode __real_curl_easy_setopt(CURL *handle, CURLoption option, ...);
CURLcode __wrap_curl_easy_setopt(CURL *handle, CURLoption option, ...);
CURLcode __wrap_curl_easy_setopt(CURL *handle, CURLoption option, ...) {
    va_list arguments;
    va_start(arguments, option);
    set_option set{option};
    if (takes_number(option))
        set.number = va_arg(arguments, long);
    else
        set.pointer = va_arg(arguments, void *);
    va_end(arguments);
    options.push_back(set);
    if (option == CURLOPT_HTTPHEADER)
        for (const auto *line = static_cast<const curl_slist *>(set.pointer); line; line = line->next)
            header_lines.emplace_back(line->data);
    if (takes_number(option))
        return __real_curl_easy_setopt(handle, option, set.number);
    return __real_curl_easy_setopt(handle, option, set.pointer);
}

CURLcode __wrap_curl_easy_perform(CURL *handle);
CURLcode __wrap_curl_easy_perform(CURL *) {
    done.emplace_back("perform");
    return transfer ? transfer() : CURLE_OK;
}

void __real_curl_easy_cleanup(CURL *handle);
void __wrap_curl_easy_cleanup(CURL *handle);
void __wrap_curl_easy_cleanup(CURL *handle) {
    done.emplace_back("cleanup");
    __real_curl_easy_cleanup(handle);
}

void __real_curl_mime_free(curl_mime *form);
void __wrap_curl_mime_free(curl_mime *form);
void __wrap_curl_mime_free(curl_mime *form) {
    done.emplace_back("free form");
    __real_curl_mime_free(form);
}

void __real_curl_slist_free_all(curl_slist *list);
void __wrap_curl_slist_free_all(curl_slist *list);
void __wrap_curl_slist_free_all(curl_slist *list) {
    done.emplace_back("free headers");
    __real_curl_slist_free_all(list);
}

void *__real_realloc(void *old, size_t size);
void *__wrap_realloc(void *old, size_t size);
void *__wrap_realloc(void *old, size_t size) {
    if (no_memory)
        return nullptr;
    return last_grown = __real_realloc(old, size);
}

void __real_free(void *memory);
void __wrap_free(void *memory);
void __wrap_free(void *memory) {
    if (memory != nullptr && memory == last_grown) {
        last_grown = nullptr;
        done.emplace_back("free answer");
    }
    __real_free(memory);
}

} // extern "C"

class ResultsTransfer : public AgentTest {
protected:
    ResultsTransfer() {
        options.clear();
        header_lines.clear();
        done.clear();
        no_handle = false;
        no_memory = false;
        last_grown = nullptr;
        transfer = nullptr;
        write_text("/tmp/output", "text");
    }

    static int post() { return http_post_results_file("http://cloud.test/", "/tmp/output"); }
};

TEST_F(ResultsTransfer, SetsTheseOptionsInThisOrderAndNoOthers) {
    EXPECT_EQ(post(), 0);

    std::vector<CURLoption> order;
    for (const auto &each : options)
        order.push_back(each.option);
    EXPECT_THAT(order, ElementsAre(CURLOPT_VERBOSE, CURLOPT_NOPROGRESS, CURLOPT_WRITEFUNCTION,
                                   CURLOPT_WRITEDATA, CURLOPT_HTTPHEADER, CURLOPT_URL, CURLOPT_MIMEPOST,
                                   CURLOPT_CONNECTTIMEOUT, CURLOPT_LOW_SPEED_LIMIT, CURLOPT_LOW_SPEED_TIME));
}

TEST_F(ResultsTransfer, IsQuiet) {
    post();
    EXPECT_EQ(option_set(CURLOPT_VERBOSE)->number, 0);
    EXPECT_EQ(option_set(CURLOPT_NOPROGRESS)->number, 1);
}

TEST_F(ResultsTransfer, GivesUpAConnectionAfter30SecondsAndAStallAfter60) {
    post();
    EXPECT_EQ(option_set(CURLOPT_CONNECTTIMEOUT)->number, 30);
    EXPECT_EQ(option_set(CURLOPT_LOW_SPEED_LIMIT)->number, 1);
    EXPECT_EQ(option_set(CURLOPT_LOW_SPEED_TIME)->number, 60);
}

TEST_F(ResultsTransfer, HasAnEmptyExpectHeaderAlone) {
    post();
    EXPECT_THAT(header_lines, ListIs("Expect:"));
}

TEST_F(ResultsTransfer, CollectsTheAnswerInAnEmptyBuffer) {
    transfer = [] {
        EXPECT_EQ(answer_so_far().data, nullptr);
        EXPECT_EQ(answer_so_far().size, 0U);
        EXPECT_EQ(answer("one"), 3U);
        EXPECT_EQ(answer(" two"), 4U);
        EXPECT_STREQ(answer_so_far().data, "one two");
        EXPECT_EQ(answer_so_far().size, 7U);
        return CURLE_OK;
    };
    EXPECT_EQ(post(), 0);
    EXPECT_EQ(option_set(CURLOPT_WRITEFUNCTION)->pointer, reinterpret_cast<void *>(results_write_callback));
}

TEST_F(ResultsTransfer, CleansUpTheHandleFirstAndTheAnswerLast) {
    transfer = [] {
        answer("text");
        return CURLE_OK;
    };
    post();
    EXPECT_THAT(done, ListIs("init", "perform", "cleanup", "free form", "free headers", "free answer"));
}

TEST_F(ResultsTransfer, ThatFailsIsLoggedAndCleanedUp) {
    transfer = [] {
        answer("text");
        return CURLE_OPERATION_TIMEDOUT;
    };

    EXPECT_EQ(post(), -1);

    EXPECT_THAT(log_lines(), ListIs(Notice("post job results /tmp/output to http://cloud.test/"),
                                    Debug("curl_easy_perform() failed: Timeout was reached\n")));
    EXPECT_THAT(done, ListIs("init", "perform", "cleanup", "free form", "free headers", "free answer"));
}

TEST_F(ResultsTransfer, FailsWithoutAHandleAndWithoutAnotherLine) {
    no_handle = true;

    EXPECT_EQ(post(), -1);

    EXPECT_THAT(log_lines(), ListIs(Notice("post job results /tmp/output to http://cloud.test/")));
    EXPECT_THAT(options, IsEmpty());
    EXPECT_EQ(done.front(), "init");
}

class WriteCallback : public ResultsTransfer {
protected:
    ~WriteCallback() override { free(buffer.data); }

    size_t write(const char *text, size_t size, size_t count) {
        std::string own(text, size * count);
        return results_write_callback(own.data(), size, count, &buffer);
    }

    response_buffer buffer;
};

TEST_F(WriteCallback, AppendsAndKeepsATerminatingZero) {
    EXPECT_EQ(write("abcdef", 2, 3), 6U);
    EXPECT_STREQ(buffer.data, "abcdef");
    EXPECT_EQ(write("gh", 1, 2), 2U);
    EXPECT_STREQ(buffer.data, "abcdefgh");
    EXPECT_EQ(buffer.size, 8U);
}

TEST_F(WriteCallback, KeepsZeroBytes) {
    EXPECT_EQ(write("a\0b", 1, 3), 3U);
    EXPECT_EQ(buffer.size, 3U);
    EXPECT_EQ(std::memcmp(buffer.data, "a\0b", 4), 0);
}

TEST_F(WriteCallback, TakesNothing) {
    EXPECT_EQ(write("", 1, 0), 0U);
    EXPECT_STREQ(buffer.data, "");
    EXPECT_EQ(buffer.size, 0U);
}

TEST_F(WriteCallback, EndsTheTransferWithoutMemory) {
    write("abc", 1, 3);
    char *old = buffer.data;
    no_memory = true;

    EXPECT_EQ(write("def", 1, 3), 0U);

    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.size, 3U);
    EXPECT_THAT(log_lines(), ListIs(Notice("not enough memory (realloc returned NULL)")));
    free(old);
}
