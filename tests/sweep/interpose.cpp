// The agent's own calls of the C library that change something, counted as its platform calls are. By the
// linker's --wrap: only the agent's and this program's objects come here, no library does.
#include "tests/sweep/interpose.h"

#include "tests/fakes/calls.h"
#include "tests/fakes/files.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <json/json.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#undef curl_easy_perform

extern "C" {
FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode);
int __real_fclose(FILE *file);
int __wrap_fclose(FILE *file);
int __real_fflush(FILE *file);
int __wrap_fflush(FILE *file);
int __real_fputs(const char *text, FILE *file);
int __wrap_fputs(const char *text, FILE *file);
int __real_fputc(int character, FILE *file);
int __wrap_fputc(int character, FILE *file);
size_t __real_fwrite(const void *data, size_t size, size_t count, FILE *file);
size_t __wrap_fwrite(const void *data, size_t size, size_t count, FILE *file);
int __wrap_fprintf(FILE *file, const char *format, ...) __attribute__((format(printf, 2, 3)));
int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to);
int __real_unlink(const char *path);
int __wrap_unlink(const char *path);
int __real_remove(const char *path);
int __wrap_remove(const char *path);
CURLcode __wrap_curl_easy_perform(CURL *handle);
}

// read_json_file: --wrap knows it by this name.
int real_read_json_file(const char *path,
                        Json::Value &value) __asm__("__real__Z14read_json_filePKcRN4Json5ValueE");
int wrapped_read_json_file(const char *path,
                           Json::Value &value) __asm__("__wrap__Z14read_json_filePKcRN4Json5ValueE");

namespace {

std::map<FILE *, std::string> paths; // of the files that are open for writing

void change_of(const char *function, FILE *file) {
    if (const auto found = paths.find(file); found != paths.end())
        fakes::change(function, found->second);
}

} // namespace

namespace sweep {

std::function<void(const std::string &path)> before_job_file_is_read;

std::vector<open_file> written_files() {
    std::vector<open_file> files;
    for (const auto &[file, path] : paths)
        files.push_back({file, path, lseek(fileno(file), 0, SEEK_CUR)});
    return files;
}

void reopen(const std::vector<open_file> &files) {
    for (const open_file &each : files) {
        const int again = open(each.path.c_str(), O_WRONLY | O_CLOEXEC);
        if (again < 0)
            continue; // somebody has removed it meanwhile
        lseek(again, each.offset, SEEK_SET);
        dup3(again, fileno(each.file), O_CLOEXEC);
        close(again);
    }
}

} // namespace sweep

int wrapped_read_json_file(const char *path, Json::Value &value) {
    static const std::string ACTIVE = ACTIVE_FOLDER;
    if (sweep::before_job_file_is_read && ACTIVE.compare(0, ACTIVE.size(), path, 0, ACTIVE.size()) == 0)
        sweep::before_job_file_is_read(path);
    return real_read_json_file(path, value);
}

FILE *__wrap_fopen(const char *path, const char *mode) {
    if (std::strpbrk(mode, "wa+") == nullptr)
        return __real_fopen(path, mode);
    fakes::change("fopen", path);
    FILE *file = __real_fopen(path, mode);
    if (file != nullptr)
        paths[file] = path;
    return file;
}

int __wrap_fclose(FILE *file) {
    change_of("fclose", file);
    paths.erase(file);
    return __real_fclose(file);
}

int __wrap_fflush(FILE *file) {
    change_of("fflush", file);
    return __real_fflush(file);
}

int __wrap_fputs(const char *text, FILE *file) {
    change_of("fputs", file);
    return __real_fputs(text, file);
}

int __wrap_fputc(int character, FILE *file) {
    change_of("fputc", file);
    return __real_fputc(character, file);
}

size_t __wrap_fwrite(const void *data, size_t size, size_t count, FILE *file) {
    change_of("fwrite", file);
    return __real_fwrite(data, size, count, file);
}

int __wrap_fprintf(FILE *file, const char *format, ...) {
    change_of("fprintf", file);
    va_list arguments;
    va_start(arguments, format);
    const int result = vfprintf(file, format, arguments);
    va_end(arguments);
    return result;
}

int __wrap_rename(const char *from, const char *to) {
    fakes::change("rename", std::string(from) + " " + to);
    return __real_rename(from, to);
}

int __wrap_unlink(const char *path) {
    fakes::change("unlink", path);
    return __real_unlink(path);
}

int __wrap_remove(const char *path) {
    fakes::change("remove", path);
    return __real_remove(path);
}

CURLcode __wrap_curl_easy_perform(CURL *) {
    fakes::change("upload", "");
    return CURLE_OK;
}
