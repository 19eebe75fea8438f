/*
 * mod_orvo: what the camera's web server understands beyond Apache's own directives.
 *
 *   Require orvo-group NAME
 *       The logged-in user is in the system's group NAME or in one above it: admin is above operator,
 *       operator above viewer.
 *   TransferMethodProxy URL SOCKET
 *       Requests for exactly this URL path go as HTTP to the Unix socket.
 */
#include <grp.h>
#include <pwd.h>
#include <string.h>

#include "httpd.h" /* the others need it before them */

#include "ap_provider.h"
#include "apr_hash.h"
#include "apr_strings.h"
#include "http_config.h"
#include "http_request.h"
#include "mod_auth.h"
#include "mod_proxy.h"

extern module AP_MODULE_DECLARE_DATA orvo_module;

typedef struct {
    apr_hash_t* sockets; /* URL path -> path of the Unix socket */
} orvo_config;

/* From the lowest to the highest; who is in one may do what those below it may. */
static const char* const ranks[] = {"viewer", "operator", "admin"};
enum { RANKS = sizeof ranks / sizeof *ranks, GROUPS = 256 };

/* --- Require orvo-group --- */

static int user_has_group(const char* user, const char* group) {
    struct passwd account, *found_account;
    struct group entry, *found_group;
    char account_text[4096], group_text[65536];
    gid_t groups[GROUPS], wanted;
    int count = GROUPS, i;
    if (getgrnam_r(group, &entry, group_text, sizeof group_text, &found_group) != 0 || found_group == NULL) {
        return 0;
    }
    wanted = found_group->gr_gid;
    if (getpwnam_r(user, &account, account_text, sizeof account_text, &found_account) != 0 ||
        found_account == NULL || getgrouplist(user, found_account->pw_gid, groups, &count) < 0) {
        return 0;
    }
    for (i = 0; i < count; i++) {
        if (groups[i] == wanted) {
            return 1;
        }
    }
    return 0;
}

static int user_may(const char* user, const char* group) {
    int rank = 0;
    while (rank < RANKS && strcmp(ranks[rank], group) != 0) {
        rank++;
    }
    if (rank == RANKS) {
        return user_has_group(user, group); /* a group outside the ranks has none above it */
    }
    for (; rank < RANKS; rank++) {
        if (user_has_group(user, ranks[rank])) {
            return 1;
        }
    }
    return 0;
}

static authz_status check_orvo_group(request_rec* r, const char* line, const void* parsed) {
    const char* name;
    (void)parsed;
    if (r->user == NULL) {
        return AUTHZ_DENIED_NO_USER;
    }
    while (*(name = ap_getword_conf(r->pool, &line)) != '\0') {
        if (user_may(r->user, name)) {
            return AUTHZ_GRANTED;
        }
    }
    return AUTHZ_DENIED;
}

static const char* parse_orvo_group(cmd_parms* cmd, const char* line, const void** parsed) {
    (void)cmd;
    (void)parsed;
    return *line == '\0' ? "Require orvo-group needs the name of a group" : NULL;
}

static const authz_provider orvo_group_provider = {&check_orvo_group, &parse_orvo_group};

/* --- TransferMethodProxy --- */

static void* create_config(apr_pool_t* pool, server_rec* server) {
    orvo_config* config = apr_palloc(pool, sizeof *config);
    (void)server;
    config->sockets = apr_hash_make(pool);
    return config;
}

static void* merge_config(apr_pool_t* pool, void* base, void* own) {
    orvo_config* config = apr_palloc(pool, sizeof *config);
    config->sockets = apr_hash_overlay(pool, ((orvo_config*)own)->sockets, ((orvo_config*)base)->sockets);
    return config;
}

static const char* set_transfer(cmd_parms* cmd, void* dummy, const char* url, const char* path) {
    orvo_config* config = ap_get_module_config(cmd->server->module_config, &orvo_module);
    (void)dummy;
    if (*url != '/' || *path != '/') {
        return "TransferMethodProxy needs a URL path and the absolute path of a socket";
    }
    apr_hash_set(config->sockets, url, APR_HASH_KEY_STRING, path);
    return NULL;
}

/*
 * Runs after the access checks, which must see the request as one for the file of that name: the rules for
 * who may use the program stand with the file.
 */
static int transfer_fixup(request_rec* r) {
    const orvo_config* config = ap_get_module_config(r->server->module_config, &orvo_module);
    const char* path = apr_hash_get(config->sockets, r->uri, APR_HASH_KEY_STRING);
    if (path == NULL || r->proxyreq != PROXYREQ_NONE) {
        return DECLINED;
    }
    r->proxyreq = PROXYREQ_REVERSE;
    r->handler = "proxy-server";
    /* The decoded path: the proxy encodes it again, and adds the query by itself. */
    r->filename = apr_pstrcat(r->pool, "proxy:unix:", path, "|http://localhost", r->uri, NULL);
    return OK;
}

static const command_rec directives[] = {
    AP_INIT_TAKE2("TransferMethodProxy", set_transfer, NULL, RSRC_CONF,
                  "a URL path, and the Unix socket that answers its requests"),
    {NULL}};

static void register_hooks(apr_pool_t* pool) {
    static const char* const before[] = {"mod_proxy.c", NULL}; /* which completes what the fix-up begins */
    ap_register_auth_provider(pool, AUTHZ_PROVIDER_GROUP, "orvo-group", AUTHZ_PROVIDER_VERSION,
                              &orvo_group_provider, AP_AUTH_INTERNAL_PER_CONF);
    ap_hook_fixups(transfer_fixup, NULL, before, APR_HOOK_FIRST);
}

AP_DECLARE_MODULE(orvo) = {STANDARD20_MODULE_STUFF, NULL, NULL, create_config, merge_config, directives,
                           register_hooks,          0};
