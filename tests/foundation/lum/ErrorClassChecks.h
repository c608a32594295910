#pragma once

#include "Printing.h"
#include "lum/CError.h"

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

namespace tessel::test {

/// Two errors that tell the same.
inline void expectSameContents(const lum::CError& actual, const lum::CError& expected) {
    EXPECT_EQ(actual.getMessage(), expected.getMessage());
    EXPECT_EQ(actual.getSecondText(), expected.getSecondText());
    EXPECT_EQ(actual.getCode(), expected.getCode());
    EXPECT_EQ(actual.getProps(), expected.getProps());
    EXPECT_EQ(actual.getCause(), expected.getCause());
    EXPECT_STREQ(actual.what(), expected.what());
    EXPECT_EQ(lum::describeError(actual), lum::describeError(expected));
}

/// A copy made through the base is of the class E, and so is what rethrow() throws.
template <class E>
void expectClassIsKept(const E& error, const std::string& className) {
    const lum::CError& base = error;
    EXPECT_EQ(base.getClassName(), className);

    const std::unique_ptr<lum::CError> holder = base.clone();
    const lum::CError& copy = *holder;
    EXPECT_EQ(typeid(copy), typeid(E));
    expectSameContents(copy, error);

    try {
        copy.rethrow();
        FAIL() << "rethrow() came back";
    } catch (const E& caught) {
        EXPECT_EQ(typeid(caught), typeid(E));
        expectSameContents(caught, error);
    } catch (const std::exception& caught) {
        FAIL() << "thrown as a " << typeid(caught).name();
    }
}

} // namespace tessel::test
