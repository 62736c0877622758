// Log point calls, one per macro. All but MATCHING_CALLS have to be refused by the compiler; the
// enclosing functions are alike, so that the call is the only difference.
#include "ds_trace.h"

// The formats that the cases use:
//   DS_DUMP                          no argument
//   DS_DB_INIT_MUTEX                 %s
//   DS_SERVICE_PUB_PUBLISH_INFO_LINK %p
//   DS_ADD_CLIENT_REG                %ld %p %s %d
//   DS_NODE_DOWN_SERVICE_DELETED     %lu
//   SERVICE_PATH_INFO                %s %d, on a channel of the caller's choice

void call(long pid, void *handle, const char *name, int number, uint64_t id,
          rtrace_handle_t channel, ds_client_t *client, short small, double real, bool flag);

void call([[maybe_unused]] long pid, [[maybe_unused]] void *handle,
          [[maybe_unused]] const char *name, [[maybe_unused]] int number,
          [[maybe_unused]] uint64_t id, [[maybe_unused]] rtrace_handle_t channel,
          [[maybe_unused]] ds_client_t *client, [[maybe_unused]] short small,
          [[maybe_unused]] double real, [[maybe_unused]] bool flag) {
#if defined(MATCHING_CALLS)
    DS_TRACE(DS_DUMP);
    DS_TRACE(DS_DB_INIT_MUTEX, name);
    DS_TRACE(DS_DB_INIT_MUTEX, "literal");
    DS_TRACE(DS_SERVICE_PUB_PUBLISH_INFO_LINK, handle);
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name, number);
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name, 5u);
    DS_TRACE(DS_NODE_DOWN_SERVICE_DELETED, id);
    DS_TRACE_ON(channel, SERVICE_PATH_INFO, name, number);
#elif defined(TOO_FEW)
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name);
#elif defined(NONE_OF_ONE)
    DS_TRACE(DS_DB_INIT_MUTEX);
#elif defined(TOO_MANY)
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name, number, number);
#elif defined(ONE_FOR_NONE)
    DS_TRACE(DS_DUMP, name);
#elif defined(INT_FOR_STRING)
    DS_TRACE(DS_DB_INIT_MUTEX, number);
#elif defined(POINTER_FOR_STRING)
    DS_TRACE(DS_DB_INIT_MUTEX, handle);
#elif defined(INT_FOR_LONG)
    DS_TRACE(DS_ADD_CLIENT_REG, number, handle, name, number);
#elif defined(POINTER_FOR_LONG)
    DS_TRACE(DS_ADD_CLIENT_REG, handle, handle, name, number);
#elif defined(LONG_FOR_INT)
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name, pid);
#elif defined(POINTER_FOR_INT)
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name, handle);
#elif defined(STRING_FOR_INT)
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name, name);
#elif defined(STRING_FOR_POINTER)
    DS_TRACE(DS_SERVICE_PUB_PUBLISH_INFO_LINK, name);
#elif defined(LONG_FOR_POINTER)
    DS_TRACE(DS_SERVICE_PUB_PUBLISH_INFO_LINK, id);
#elif defined(TYPED_POINTER_FOR_POINTER)
    DS_TRACE(DS_SERVICE_PUB_PUBLISH_INFO_LINK, client);
#elif defined(BOOL_FOR_INT)
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name, flag);
#elif defined(SHORT_FOR_INT)
    DS_TRACE(DS_ADD_CLIENT_REG, pid, handle, name, small);
#elif defined(DOUBLE_FOR_LONG)
    DS_TRACE(DS_NODE_DOWN_SERVICE_DELETED, real);
#elif defined(SWAPPED)
    DS_TRACE(DS_ADD_CLIENT_REG, pid, name, handle, number);
#elif defined(TOO_FEW_ON_A_CHANNEL)
    DS_TRACE_ON(channel, SERVICE_PATH_INFO, name);
#elif defined(INT_FOR_STRING_ON_A_CHANNEL)
    DS_TRACE_ON(channel, SERVICE_PATH_INFO, number, number);
#elif defined(NO_CHANNEL_OF_ITS_OWN)
    DS_TRACE(SERVICE_PATH_INFO, name, number);
#elif defined(UNKNOWN_TAG)
    DS_TRACE(NO_SUCH_POINT, name);
#else
#error "name a case"
#endif
}
