// A two-dimensional array of values with IDs. The data parser flattens it into parameters.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoText.h>
#include <base/com/VoComHelper.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Rows by columns of cells. A cell holds an ID text and a value, or nothing. Rows and columns count from 0. The array owns its
// texts and values. Not thread-safe. Functions that return an HRESULT report a failure and leave the array untouched then.
class CVo2DIDArray
{
public:
    struct CCell
    {
        std::wstring id;
        CVoVariant value;
    };

    CVo2DIDArray() noexcept = default;
    // An array that was moved from is empty.
    CVo2DIDArray(CVo2DIDArray&& other) noexcept { Swap(other); }
    CVo2DIDArray& operator=(CVo2DIDArray&& other) noexcept
    {
        CVo2DIDArray(std::move(other)).Swap(*this);
        return *this;
    }

    // Makes every cell hold nothing. Either size may be 0. E_INVALIDARG for a size above INT32_MAX, E_OUTOFMEMORY.
    [[nodiscard]] HRESULT SetSize(UINT32 rows, UINT32 columns) noexcept;
    // Takes over a variant's safe array of two dimensions, rows first, whatever its lower bounds and its element type. The
    // cells have empty IDs; an element that is VT_EMPTY becomes a cell that holds nothing. DISP_E_TYPEMISMATCH for any other
    // variant, and for an array of records.
    [[nodiscard]] HRESULT SetFromVariant(const VARIANT& value) noexcept;
    // Whether a variant holds such an array, or a reference to one.
    [[nodiscard]] static bool IsTwoDimensional(const VARIANT& value) noexcept;
    // Removes all cells: 0 rows and 0 columns.
    void Clear() noexcept;

    [[nodiscard]] UINT32 Rows() const noexcept { return m_rows; }
    [[nodiscard]] UINT32 Columns() const noexcept { return m_columns; }

    // Copies an ID and a value into a cell. Of a value that is a reference (VT_BYREF), the referenced value is copied.
    // E_INVALIDARG outside the array, or the platform's code for a value that cannot be copied.
    [[nodiscard]] HRESULT SetCell(UINT32 row, UINT32 column, CVoTextView id, const VARIANT& value) noexcept;
    // Moves the value in; `value` is empty afterwards, on success.
    [[nodiscard]] HRESULT SetCell(UINT32 row, UINT32 column, CVoTextView id, CVoVariant&& value) noexcept;
    // Makes a cell hold nothing. E_INVALIDARG outside the array.
    [[nodiscard]] HRESULT ClearCell(UINT32 row, UINT32 column) noexcept;

    // Null for a cell that holds nothing, and outside the array. The cell belongs to the array and is valid until it changes.
    [[nodiscard]] const CCell* GetCell(UINT32 row, UINT32 column) const noexcept;

private:
    void Swap(CVo2DIDArray& other) noexcept
    {
        std::swap(m_rows, other.m_rows);
        std::swap(m_columns, other.m_columns);
        m_cells.swap(other.m_cells);
    }
    [[nodiscard]] bool IsInside(UINT32 row, UINT32 column) const noexcept { return row < m_rows && column < m_columns; }
    [[nodiscard]] size_t Index(UINT32 row, UINT32 column) const noexcept { return size_t{ row } * m_columns + column; }

    UINT32 m_rows = 0;
    UINT32 m_columns = 0;
    std::vector<std::unique_ptr<CCell>> m_cells; // row by row; null for nothing
};
