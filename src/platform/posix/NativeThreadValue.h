#pragma once

#include <pthread.h>

namespace platform
{

template <class Owner> class ThreadValue
{
public:
    [[nodiscard]] static void* get() noexcept { return s_value; }

    static void set(void* value)
    {
        s_value = value;
        pthread_setspecific(key(), value);
    }

private:
    /// The system releases keys after all thread_local objects, so no destructor of these sets a value afterwards.
    static pthread_key_t key()
    {
        static const pthread_key_t KEY = [] {
            pthread_key_t created = 0;
            pthread_key_create(&created, [](void* value) {
                s_value = nullptr;
                Owner::release(value);
            });
            return created;
        }();
        return KEY;
    }

    static constinit inline thread_local void* s_value = nullptr; // a copy of the key's value, which is cheaper to read
};

} // namespace platform
