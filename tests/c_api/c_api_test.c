/* The C interface as a C program meets it, against the reference resolution service started as
 * a child process on loopback. One process, cases in order: what needs no login first. */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "QelHttpDnsSDK/Extras/qel_httpdns.h"

static int failures = 0;

#define CHECK(condition)                                                                  \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                                   \
        }                                                                                 \
    } while (0)

static const char kName[] = "app.qel-demo.test";
enum { kAnswered = 100 }; /* no error has this code */
static char scratch[64] = "/tmp/qel-c-api-XXXXXX";

static void pause10ms(void) {
    struct timespec pause = {0, 10 * 1000 * 1000};
    nanosleep(&pause, NULL);
}

/* Binds (port 0: the kernel picks one) or connects to 127.0.0.1:port; the port, or -1. */
static int loopback(int port, int doBind) {
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    int fd = socket(AF_INET, SOCK_STREAM, 0), ok;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons((unsigned short)port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ok = doBind ? bind(fd, (struct sockaddr*)&address, sizeof address) == 0 &&
                      getsockname(fd, (struct sockaddr*)&address, &length) == 0
                : connect(fd, (struct sockaddr*)&address, sizeof address) == 0;
    close(fd);
    return ok ? ntohs(address.sin_port) : -1;
}

/* Starts the service with one account and kName in its zone; its pid. */
static pid_t startService(char* url, size_t size) {
    static const char* const files[][2] = {{"accounts", "acct-c s3cr3t-C\n"}, {"zone", "app.qel-demo.test 60 A 127.0.0.1\n"}};
    char paths[2][128], listen[32];
    int port = loopback(0, 1), i;
    pid_t child;
    for (i = 0; i < 2; ++i) {
        FILE* file;
        snprintf(paths[i], sizeof paths[i], "%s/%s", scratch, files[i][0]);
        file = fopen(paths[i], "w");
        if (!file || fputs(files[i][1], file) < 0 || fclose(file) != 0) exit(1);
    }
    snprintf(listen, sizeof listen, "127.0.0.1:%d", port);
    child = fork();
    if (child == 0) {
        char* const argv[] = {
            (char*)QEL_SERVER_BINARY, (char*)"--accounts", paths[0], (char*)"--zone", paths[1], (char*)"--listen", listen, NULL};
        execv(QEL_SERVER_BINARY, argv);
        _exit(127);
    }
    for (i = 0; i < 1000 && loopback(port, 0) < 0; ++i) pause10ms();
    if (port < 0 || loopback(port, 0) < 0) exit(1);
    snprintf(url, size, "http://127.0.0.1:%d", port);
    return child;
}

/* Whether `error` has `code` and a message; frees it. */
static int failedWith(qel_httpdns_error* error, int64_t code) {
    int matches = error != NULL && error->code == code && error->message != NULL;
    qel_httpdns_error_free(error);
    return matches;
}

/* The code of a blocking IPv4 lookup's error (kAnswered for success); checks that
 * a failure carries no addresses and that an answer is kName's one address; frees it. */
static int64_t resolveCode(const char* domain, double timeout) {
    qel_httpdns_result* result = qel_httpdns_resolve(domain, QEL_HTTPDNS_IPV4, timeout);
    int64_t code = result && result->error ? result->error->code : kAnswered;
    CHECK(result != NULL);
    CHECK(!result || (result->error ? result->ips == NULL && result->ip_count == 0
                                    : result->ip_count == 1 && !strcmp(result->ips[0], "127.0.0.1")));
    CHECK(!result || !result->error || !strcmp(result->error->domain, "com.qel.httpdnssdk"));
    qel_httpdns_result_free(result);
    return code;
}

/* What an asynchronous lookup's callback received. */
struct Answer {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    int calls;
    qel_httpdns_result* result;
    int64_t nestedCode; /* a blocking lookup made inside the callback */
};

static void onAnswer(qel_httpdns_result* result, void* user_data) {
    struct Answer* answer = user_data;
    int64_t nested = resolveCode(kName, 5.0);
    pthread_mutex_lock(&answer->mutex);
    answer->nestedCode = nested;
    answer->result = result;
    ++answer->calls;
    pthread_cond_signal(&answer->changed);
    pthread_mutex_unlock(&answer->mutex);
}

static void beforeRegistration(void) {
    const char* degraded[] = {"legacy.test"};
    const char* withNull[] = {"a.test", NULL};
    char* description = qel_httpdns_status_description();
    CHECK(strcmp(qel_httpdns_version(), QEL_PROJECT_VERSION) == 0 && qel_httpdns_status() == 0);
    CHECK(description && strcmp(description, "") == 0);
    qel_httpdns_string_free(description);

    /* Bad arguments are errors, never crashes. */
    CHECK(failedWith(qel_httpdns_set_timeout(-1.0), QEL_HTTPDNS_E_INVALID_ARGUMENT));
    CHECK(failedWith(qel_httpdns_set_resilience(1, -1.0), QEL_HTTPDNS_E_INVALID_ARGUMENT));
    CHECK(failedWith(qel_httpdns_set_degrade_hosts(NULL, 2), QEL_HTTPDNS_E_INVALID_ARGUMENT));
    CHECK(failedWith(qel_httpdns_set_degrade_hosts(withNull, 2), QEL_HTTPDNS_E_INVALID_ARGUMENT));
    CHECK(failedWith(qel_httpdns_lookup(kName, QEL_HTTPDNS_IPV4, NULL, NULL), QEL_HTTPDNS_E_INVALID_ARGUMENT));
    CHECK(failedWith(qel_httpdns_set_store_path(NULL), QEL_HTTPDNS_E_INVALID_ARGUMENT));

    /* Degraded hosts are refused even now; other lookups wait for a login that never comes. */
    CHECK(qel_httpdns_set_degrade_hosts(degraded, 1) == NULL);
    CHECK(resolveCode("legacy.test", 0.0) == 2);
    CHECK(resolveCode(kName, 0.1) == QEL_HTTPDNS_E_TIMED_OUT);
    CHECK(qel_httpdns_set_degrade_hosts(NULL, 0) == NULL);
}

static void lookups(const char* serviceUrl) {
    struct Answer answer;
    struct timespec limit;
    int i;
    CHECK(qel_httpdns_set_server_url(serviceUrl) == NULL && qel_httpdns_set_timeout(5.0) == NULL);
    CHECK(qel_httpdns_register("acct-c", "s3cr3t-C") == NULL);
    /* Waits for the login's reply, then for the service's answer. */
    CHECK(resolveCode(kName, 30.0) == kAnswered && qel_httpdns_status() == 4);
    CHECK(resolveCode("not a domain", 5.0) == 1 && resolveCode(NULL, 5.0) == 1);

    memset(&answer, 0, sizeof answer);
    pthread_mutex_init(&answer.mutex, NULL);
    pthread_cond_init(&answer.changed, NULL);
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 30;
    CHECK(qel_httpdns_lookup(kName, QEL_HTTPDNS_IPV4, onAnswer, &answer) == NULL);
    pthread_mutex_lock(&answer.mutex);
    while (answer.calls == 0 && pthread_cond_timedwait(&answer.changed, &answer.mutex, &limit) == 0) {}
    CHECK(answer.calls == 1 && answer.result && !answer.result->error);
    CHECK(answer.result && answer.result->ip_count == 1 && !strcmp(answer.result->ips[0], "127.0.0.1"));
    /* The service's answer runs on the platform thread, where waiting is refused. */
    CHECK(answer.nestedCode == QEL_HTTPDNS_E_PLATFORM_THREAD);
    pthread_mutex_unlock(&answer.mutex);
    qel_httpdns_result_free(answer.result);

    /* Stored from the service's answers, then a hit that needs no wait. */
    CHECK(qel_httpdns_set_cache_enabled(1) == NULL && qel_httpdns_set_log_enabled(0) == NULL);
    for (i = 0; i < 500 && resolveCode(kName, 0.0) != kAnswered; ++i) pause10ms();
    CHECK(resolveCode(kName, 0.0) == kAnswered);
    CHECK(qel_httpdns_clean_cache() == NULL);
}

int main(void) {
    char serviceUrl[64], store[128], command[128];
    pid_t server;
    if (!mkdtemp(scratch)) return 1;
    snprintf(store, sizeof store, "%s/store.sqlite3", scratch);
    CHECK(qel_httpdns_set_bundle_identifier("com.example.c-api") == NULL);
    CHECK(qel_httpdns_set_store_path(store) == NULL);
    server = startService(serviceUrl, sizeof serviceUrl);

    beforeRegistration();
    lookups(serviceUrl);

    kill(server, SIGTERM);
    waitpid(server, NULL, 0);
    snprintf(command, sizeof command, "rm -rf '%s'", scratch);
    if (system(command) != 0) fprintf(stderr, "could not remove %s\n", scratch);
    if (failures) fprintf(stderr, "%d checks failed\n", failures);
    return failures ? 1 : 0;
}
