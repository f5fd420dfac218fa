#pragma once

#include <QByteArray>
#include <QtTest>

#include <array>
#include <cstddef>
#include <tuple>

constexpr std::array<const char*, 7> kColumns{"0", "1", "2", "3", "4", "5", "6"};

/// The data of a test: made in its _data function, called once for each row, with its name and the values.
template<typename... Types>
class Table {
public:
    Table()
    {
        std::size_t index = 0;
        (QTest::addColumn<Types>(kColumns.at(index++)), ...);
    }

    void operator()(const QByteArray& name, const Types&... values) const
    {
        QTestData& row = QTest::newRow(name.constData());
        ((row << values), ...);
    }
};

/// Takes the values of the current row one after the other.
class RowReader {
public:
    template<typename Type>
    Type& Next()
    {
        return *static_cast<Type*>(QTest::qData(kColumns.at(m_column++), qMetaTypeId<Type>()));
    }

private:
    std::size_t m_column = 0;
};

/// \return the values of the current row of a Table of the same types
template<typename... Types>
std::tuple<Types...> FetchRow()
{
    RowReader row;
    return {row.Next<Types>()...};
}
