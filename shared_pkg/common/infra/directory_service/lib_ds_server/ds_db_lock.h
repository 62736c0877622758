// The database mutex, held for the life of one object. It is not recursive: no function that holds
// it calls another that takes it.
#ifndef DS_DB_LOCK_H
#define DS_DB_LOCK_H
#include "ds_internal.h"

class ds_db_lock {
  public:
    explicit ds_db_lock(ds_db_t *db) : mutex_(&db->mutex) { pthread_mutex_lock(mutex_); }
    ~ds_db_lock() { pthread_mutex_unlock(mutex_); }
    ds_db_lock(const ds_db_lock &) = delete;
    ds_db_lock &operator=(const ds_db_lock &) = delete;

  private:
    pthread_mutex_t *mutex_;
};

#endif
