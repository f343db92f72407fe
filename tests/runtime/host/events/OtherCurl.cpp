// A library under libcurl's name that lacks a function (LACKS is 1), or does not start.
#define STUB(name)                                                 \
    extern "C" __attribute__((visibility("default"))) int name() { \
        return 0;                                                  \
    }

extern "C" __attribute__((visibility("default"))) int curl_global_init(long) {
    return 1 - LACKS;
}

STUB(curl_easy_init)
STUB(curl_easy_setopt)
STUB(curl_easy_perform)
STUB(curl_easy_cleanup)
STUB(curl_easy_strerror)
STUB(curl_slist_append)
STUB(curl_slist_free_all)
#if !LACKS
STUB(curl_easy_getinfo)
#endif
