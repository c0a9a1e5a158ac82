#pragma once

// The members every filter class of this plugin carries, written once.
//
// KEL2FILE_FILTER_CLASS_MEMBERS() goes inside the class body and declares, as
// public members:
// - the class-wide constants sTypeGuid, sFilterClassInfo and sRegistrationId;
// - static TheTypeGuid() / TheFilterClassInfo() and their virtual
//   counterparts TypeGuid() / GetFilterClassInfo(), each returning a copy;
// - class-level operator new / delete (plain and placement) that forward to
//   the global ones, so that the host and the plugin allocate and free a
//   filter through the same functions.
// Members that follow the macro are public until the next access specifier.
//
// KEL2FILE_REGISTER_FILTER_CLASS(Class, guidText, category) defines the
// three constants in this order: the type GUID parsed from `guidText`, the
// class information named after the class, then the id returned by
// registering both (as copies) with the exported creator ClassFilterCreator.
// Dynamic initialisation runs in definition order only within one
// translation unit, so all uses belong in the plugin's filter registry, where
// each registration can rely on the two constants defined just above it.
// Use it inside namespace Kel2File.

#include <KEL/FilterClassInfo.h>
#include <KEL/FilterFactory.h>
#include <KelCommon/Guid.h>

#include <cstddef>
#include <new>

#define KEL2FILE_FILTER_CLASS_MEMBERS()                                                                       \
public:                                                                                                       \
    static KelCommon::Guid sTypeGuid;                                                                         \
    static KEL::FilterClassInfo sFilterClassInfo;                                                             \
    static int sRegistrationId;                                                                               \
                                                                                                              \
    static KelCommon::Guid TheTypeGuid() { return sTypeGuid; }                                                \
    static KEL::FilterClassInfo TheFilterClassInfo() { return sFilterClassInfo; }                             \
    KelCommon::Guid TypeGuid() const override { return sTypeGuid; }                                           \
    KEL::FilterClassInfo GetFilterClassInfo() const override { return sFilterClassInfo; }                     \
                                                                                                              \
    static void* operator new(std::size_t size) { return ::operator new(size); }                              \
    static void* operator new(std::size_t size, void* where) noexcept { return ::operator new(size, where); } \
    static void operator delete(void* memory) noexcept { ::operator delete(memory); }                         \
    static void operator delete(void* memory, void* where) noexcept { ::operator delete(memory, where); }

#define KEL2FILE_REGISTER_FILTER_CLASS(Class, guidText, category)                \
    KelCommon::Guid Class::sTypeGuid = KelCommon::Guid::FromHexString(guidText); \
    KEL::FilterClassInfo Class::sFilterClassInfo(#Class, category);              \
    int Class::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(        \
        KelCommon::Guid(Class::sTypeGuid), KEL::FilterClassInfo(Class::sFilterClassInfo), &Class##FilterCreator)

#include <KEL/Filter.h>

#include <cstring>

namespace Kel2File {

// Makes a filter the way the target creators do: memory from T's class-level
// operator new, zero-filled, then T constructed in it. The caller owns the
// result and frees it through the host's Filter pointer (virtual destructor
// and T's operator delete).
template <class T>
KEL::Filter* NewZeroFilledFilter() {
    void* memory = T::operator new(sizeof(T));
    std::memset(memory, 0, sizeof(T));
    return new (memory) T();
}

}  // namespace Kel2File
