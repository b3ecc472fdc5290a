// A file of two drivers, whose objects are good for nothing but their release.

#include <cstdint>

namespace {

struct Object final {
    explicit Object(unsigned number) : number_(number) {}
    virtual std::int32_t query_interface() { return -1; }
    virtual std::uint32_t add_reference() { return 1; }
    virtual std::uint32_t release() {
        delete this;
        return 0;
    }
    virtual unsigned number() { return number_; }

  private:
    unsigned number_;
};

}  // namespace

extern "C" {

[[gnu::visibility("default")]] const char* tavistro_driver_class_id(unsigned number) {
    if (number > 1) return nullptr;
    return number == 0 ? "{01234567-89AB-CDEF-0123-456789ABCD00}"
                       : "{01234567-89AB-CDEF-0123-456789ABCD01}";
}

[[gnu::visibility("default")]] const char* tavistro_driver_name(unsigned number) {
    return number == 0 ? "First" : nullptr;
}

[[gnu::visibility("default")]] void* tavistro_driver_create(unsigned number) {
    return new Object(number);
}

}  // extern "C"
