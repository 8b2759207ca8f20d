/** @file What the library's records, Variant maps with fixed keys, have in common. */
#pragma once

#include "korvo/variant/variant.h"

namespace korvo::variant {

/** Variant::GetKeyChain() on a constant value. */
inline const Variant* find(const Variant& value, VariantType filter, const char* path) {
    // A look-up changes nothing, but a device maker's library may not declare it const.
    return const_cast<Variant&>(value).GetKeyChain(filter, path, false);
}

/** Makes a record an empty map unless it is a map already. */
inline void ensureMapForm(Variant& record) {
    const VariantType type = record;
    if (type == TypeMap || type == TypeTypedMap) return;
    record.Free();
    record.IsArray(false);
}

/** The member under @p key, first replaced by @p defaultValue unless its type belongs to @p category. */
template <class Default>
Variant& memberOrDefault(Variant& record, const char* key, VariantType category, Default defaultValue) {
    ensureMapForm(record);
    Variant& member = record[key];
    const VariantType type = member;
    if ((type & category) != category) member = defaultValue;
    return member;
}

}  // namespace korvo::variant
