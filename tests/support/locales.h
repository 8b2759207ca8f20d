/** @file Runs a piece of code in the locales where numbers are written differently. */
#pragma once

#include <gtest/gtest.h>

#include <clocale>
#include <iostream>

namespace test {

/**
 * Calls @p body in the C locale and in one with a decimal comma, which a machine without uClibc must have.
 */
template <class Body>
void inEveryLocale(Body body) {
    // NOLINTBEGIN(concurrency-mt-unsafe): tests change the locale from one thread
    for (const char* name : {"C", "de_DE.UTF-8"}) {
        SCOPED_TRACE(name);
        const bool there = std::setlocale(LC_ALL, name) != nullptr;
#ifndef __UCLIBC__
        ASSERT_TRUE(there) << "install the locale " << name;
#endif
        if (!there) std::cout << "left out, as this C library lacks it: the locale " << name << '\n';
        if (there) body();
    }
    std::setlocale(LC_ALL, "C");
    // NOLINTEND(concurrency-mt-unsafe)
}

}  // namespace test
