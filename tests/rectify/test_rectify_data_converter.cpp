// The public converter of calibration records: a record by hand, the rotation, crops, lens kinds, life cycle.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "rectify/rectify_lens_dist.h"
#include "velquin/rectify_data_converter.h"

using namespace vq_tl;

namespace {

// A converter context in a caller's buffer, as a camera service would hold it.
struct Converter {
    alignas(8) uint8_t buffer[64];
    RectifyDataConverterHandle handle{nullptr};
    explicit Converter(int32_t tableCapacity = 41, int32_t coefficientCount = 3) {
        EXPECT_EQ(velquin_RectifyDataConverter_initialize(&handle, buffer, sizeof buffer, tableCapacity,
                                                          coefficientCount),
                  TL_OK);
    }
    ~Converter() {
        if (handle.context != nullptr) velquin_RectifyDataConverter_finalize(&handle);
    }
};

// The hand-made record. Power-of-two pitches keep it exact: main f = 4.0 mm / 2^-10 mm = 4096 pixels, sub f =
// 3.0 mm / 1.953125 um = 1536. Centres off by (8, -12) and (-3, 0) pixels; crop origins round to (3, -1) and
// (0, 2), sizes to 3996 by 2996 and 2000 by 1500. The sub table: R2 = t^2 1250^2 / 1536^2 at fraction t.
const float kMainTable[5] = {0.0f, 0.24f, 0.47f, 0.69f, 0.9f};
constexpr float kSubK1 = -0.05f, kSubK2 = 0.01f;
float gSubTable[11];

RectifyDataConverterParam handMadeRecord() {
    for (int i = 0; i < 11; ++i) {
        const double t = i / 10.0, r2 = t * t * (1250.0 * 1250.0) / (1536.0 * 1536.0);
        gSubTable[i] = static_cast<float>(t * (1.0 + kSubK1 * r2 + kSubK2 * r2 * r2));
    }
    // In the record's order: the forward flag, pitches, focal lengths, sensor sizes, centre offsets, the main
    // and sub crops (left, top, width, height), lens kinds, counts, tables, translation, rotation angles.
    return {1,          0.9765625f,   1.953125f,     4.0f, 3.0f, 4000,  3000,    2000,       1500,
            0.0078125f, -0.01171875f, -0.005859375f, 0.0f, 2.5f, -0.5f, 3995.5f, 2996.4f,    0.49f,
            1.5f,       1999.5f,      1499.5f,       1,    0,    5,     11,      kMainTable, gSubTable,
            -10.5f,     0.25f,        1.0f,          0.0f, 0.0f, 90.0f};
}

// A row whose every byte is 0x5A, so that fields left alone can be told.
TwinLensCameraParam sentinelRow() {
    TwinLensCameraParam row;
    return static_cast<TwinLensCameraParam*>(std::memset(&row, 0x5A, sizeof row))[0];
}

bool untouched(const void* field, size_t bytes) {
    const uint8_t* p = static_cast<const uint8_t*>(field);
    return std::all_of(p, p + bytes, [](uint8_t b) { return b == 0x5A; });
}

}  // namespace

TEST(RectifyDataConverter, HandMadeRecordGivesTheRowWorkedOutByHand) {
    Converter c;
    const RectifyDataConverterParam p = handMadeRecord();
    TwinLensCameraParam row = sentinelRow();
    ASSERT_EQ(velquin_RectifyDataConverter_convert(&c.handle, &row, &p), TL_OK);
    EXPECT_EQ(row.extrinsicsForward, 1);
    // Camera matrices: main cx = 8 + 2000 - 3, cy = -12 + 1500 + 1; sub 997, 748 likewise.
    const double mainK[9] = {4096, 0, 2005, 0, 4096, 1489, 0, 0, 1},
                 subK[9] = {1536, 0, 997, 0, 1536, 748, 0, 0, 1};
    EXPECT_TRUE(std::equal(mainK, mainK + 9, row.mainCameraMatrix));
    EXPECT_TRUE(std::equal(subK, subK + 9, row.subCameraMatrix));
    // Rz(90 degrees) with the radians in float: fl(pi / 2) lies 4.371139e-8 above pi / 2, the cosine below 0.
    const double z = std::cos(static_cast<double>(static_cast<float>(M_PI / 2))),
                 rotation[9] = {z, -1, 0, 1, z, 0, 0, 0, 1};
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(row.stereoRotation[i], rotation[i], 1e-14) << i;
    EXPECT_TRUE(row.stereoTranslation[0] == -10.5 && row.stereoTranslation[1] == 0.25 &&
                row.stereoTranslation[2] == 1.0);
    EXPECT_TRUE(row.mainCalibWidth == 3996 && row.mainCalibHeight == 2996 && row.subCalibWidth == 2000 &&
                row.subCalibHeight == 1500 && row.mainRectWidth == 3996 && row.mainRectHeight == 2996 &&
                row.subRectWidth == 2000 && row.subRectHeight == 1500);
    // Main lens kept as a table: half the diagonal over f is hypot(4000, 3000) / 4096 / 2 = 0.6103515625.
    EXPECT_TRUE(row.mainLensDist.kind == 1 && row.mainLensDist.u.data.count == 5);
    EXPECT_NEAR(row.mainLensDist.u.data.maxRadius, 0.6103515625, 1e-15);
    EXPECT_TRUE(std::equal(kMainTable, kMainTable + 5, row.mainLensDist.u.data.table));
    EXPECT_TRUE(untouched(&row.mainLensDist.u.data.table[5], sizeof(double)));
    // Sub lens fitted: k1 and k2 come back, p1 and p2 are 0; what the fit does not produce is left alone.
    EXPECT_EQ(row.subLensDist.kind, 0);
    const auto& sub = row.subLensDist.u.coeff;
    EXPECT_TRUE(std::fabs(sub.k[0] - kSubK1) < 2e-4 && std::fabs(sub.k[1] - kSubK2) < 5e-4 &&
                std::fabs(sub.k[2]) < 5e-4)
        << sub.k[0] << " " << sub.k[1] << " " << sub.k[2];
    EXPECT_TRUE(sub.p[0] == 0.0 && sub.p[1] == 0.0);
    EXPECT_TRUE(untouched(&sub.k[3], 3 * sizeof(double)) && untouched(&sub.invK, sizeof sub.invK) &&
                untouched(&sub.invValid, sizeof(int32_t)));
    // The caller's fields stay as they were.
    EXPECT_TRUE(untouched(&row.focusPosition, sizeof row.focusPosition) &&
                untouched(row.mainRectRotation, sizeof row.mainRectRotation) &&
                untouched(row.subRectRotation, sizeof row.subRectRotation) &&
                untouched(row.mainRectCameraMatrix, sizeof row.mainRectCameraMatrix) &&
                untouched(row.subRectCameraMatrix, sizeof row.subRectCameraMatrix));

    // The table, read by the lens model, moves an ideal point at fraction t to the sensor corner to T(t).
    RectifyLensDist lens;
    RectifyLensDist_clear(&lens);
    const auto& data = row.mainLensDist.u.data;
    ASSERT_EQ(RectifyLensDist_setDistData(&lens, data.table, data.count, data.maxRadius), TL_OK);
    for (int i = 1; i < 4; ++i) {
        double x, y;
        ASSERT_EQ(Rectify_distortPoint(2000.0 * i / 4 / 4096.0, 1500.0 * i / 4 / 4096.0, &x, &y, &lens),
                  TL_OK);
        EXPECT_TRUE(std::fabs(x * 4096.0 / 2000.0 - kMainTable[i]) < 1e-12 &&
                    std::fabs(y * 4096.0 / 1500.0 - kMainTable[i]) < 1e-12)
            << i;
    }
}

TEST(RectifyDataConverter, CropsRoundHalfAwayFromZero) {
    Converter c;
    const struct {
        float value;
        int32_t rounded;
    } cases[] = {{-0.5f, -1}, {0.5f, 1}, {1.49f, 1}, {-1.5f, -2}, {2.5f, 3}, {-0.49f, 0}, {0.0f, 0}};
    for (const auto& k : cases) {
        RectifyDataConverterParam p = handMadeRecord();
        p.mainCropWidth = k.value;
        p.subCropHeight = -k.value;
        TwinLensCameraParam row = sentinelRow();
        ASSERT_EQ(velquin_RectifyDataConverter_convertCalibSize(&c.handle, &row, &p), TL_OK);
        EXPECT_TRUE(row.mainCalibWidth == k.rounded && row.mainRectWidth == k.rounded &&
                    row.subCalibHeight == -k.rounded &&
                    untouched(row.mainCameraMatrix, sizeof row.mainCameraMatrix))
            << k.value;
        // Crop origins move the principal point by the rounded amount.
        p.mainCropLeft = k.value;
        ASSERT_EQ(velquin_RectifyDataConverter_convertCameraMatrix(&c.handle, &row, &p), TL_OK);
        EXPECT_EQ(row.mainCameraMatrix[2], 8.0 + 2000.0 - k.rounded) << k.value;
        EXPECT_TRUE(untouched(row.stereoRotation, sizeof row.stereoRotation));
    }
}

TEST(RectifyDataConverter, LensKindsAndCounts) {
    Converter c;
    const float zeros[4] = {0, 0, 0, 0};
    const float ramp[42] = {0.0f, 0.1f, 0.2f};
    const struct {
        const char* what;
        int32_t kind, count;
        const float* table;
        TLResult result;
        int32_t rowKind;  // -1: not checked
    } cases[] = {
        {"all-zero table is undistorted", 1, 4, zeros, TL_OK, 0},
        {"count 0 is undistorted", 1, 0, nullptr, TL_OK, 0},
        {"42 entries kept as a table", 1, 42, ramp, TL_ERROR_GENERAL, -1},
        {"41 entries kept as a table", 1, 41, ramp, TL_OK, 1},
        {"unknown kind", 2, 3, ramp, TL_ERROR_GENERAL, -1},
        {"count without a table", 1, 3, nullptr, TL_ERROR_PARAM, -1},
        {"fit of fewer knots than coefficients", 0, 3, ramp, TL_ERROR_PARAM, -1},
    };
    for (const auto& k : cases) {
        RectifyDataConverterParam p = handMadeRecord();
        p.mainDistKind = k.kind;
        p.mainDistCount = k.count;
        p.mainDistTable = k.table;
        TwinLensCameraParam row = sentinelRow();
        EXPECT_EQ(velquin_RectifyDataConverter_convert(&c.handle, &row, &p), k.result) << k.what;
        EXPECT_TRUE(k.rowKind < 0 || row.mainLensDist.kind == k.rowKind) << k.what;
        const auto& coeff = row.mainLensDist.u.coeff;
        EXPECT_TRUE(k.rowKind != 0 || (std::all_of(coeff.k, coeff.k + 3, [](double v) { return v == 0; }) &&
                                       coeff.p[0] == 0 && coeff.p[1] == 0))
            << k.what;
        // A failure comes at the main lens, after the sub lens and before the sizes.
        EXPECT_TRUE(k.result == TL_OK || (row.subLensDist.kind == 0 && untouched(&row.mainCalibWidth, 4)))
            << k.what;
    }
}

TEST(RectifyDataConverter, PublicLifeCycle) {
    const uint32_t size = velquin_RectifyDataConverter_getBufferSize(41, 3);
    ASSERT_LT(size, 64u);
    EXPECT_TRUE(velquin_RectifyDataConverter_getBufferSize(0, 3) == TL_ERROR_PARAM &&
                velquin_RectifyDataConverter_getBufferSize(41, 0) == TL_ERROR_PARAM);
    alignas(8) uint8_t buffer[64];
    RectifyDataConverterHandle handle{nullptr};
    const struct {
        RectifyDataConverterHandle* handle;
        void* buffer;
        int32_t size, capacity;
        TLResult expected;
    } refused[] = {{nullptr, buffer, 64, 41, TL_ERROR_PARAM},
                   {&handle, nullptr, 64, 41, TL_ERROR_PARAM},
                   {&handle, buffer, 0, 41, TL_ERROR_PARAM},
                   {&handle, buffer, static_cast<int32_t>(size) - 1, 41, TL_ERROR_SYSTEM},
                   {&handle, buffer, 64, 0, TL_ERROR_GENERAL}};
    for (const auto& r : refused)
        EXPECT_EQ(velquin_RectifyDataConverter_initialize(r.handle, r.buffer, r.size, r.capacity, 3),
                  r.expected);
    EXPECT_EQ(handle.context, nullptr);
    // Calls before initialize, with missing arguments, and on a context that is not initialised.
    const RectifyDataConverterParam p = handMadeRecord();
    TwinLensCameraParam row = sentinelRow();
    alignas(8) uint8_t blank[64] = {};
    RectifyDataConverterHandle stale{reinterpret_cast<RectifyDataConverterContext*>(blank)};
    using Call =
        TLResult (*)(RectifyDataConverterHandle*, TwinLensCameraParam*, const RectifyDataConverterParam*);
    for (const Call call :
         {velquin_RectifyDataConverter_convert, velquin_RectifyDataConverter_convertCameraMatrix,
          velquin_RectifyDataConverter_convertCalibSize})
        EXPECT_TRUE(call(&handle, &row, &p) == TL_ERROR_PARAM && call(&stale, &row, &p) == TL_ERROR_STATE);
    EXPECT_TRUE(velquin_RectifyDataConverter_finalize(&handle) == TL_ERROR_PARAM &&
                velquin_RectifyDataConverter_finalize(nullptr) == TL_ERROR_PARAM &&
                velquin_RectifyDataConverter_finalize(&stale) == TL_ERROR_STATE);

    ASSERT_EQ(velquin_RectifyDataConverter_initialize(&handle, buffer, static_cast<int32_t>(size), 41, 3),
              TL_OK);
    ASSERT_NE(handle.context, nullptr);
    EXPECT_TRUE(velquin_RectifyDataConverter_convert(&handle, nullptr, &p) == TL_ERROR_PARAM &&
                velquin_RectifyDataConverter_convert(&handle, &row, nullptr) == TL_ERROR_PARAM);
    EXPECT_EQ(velquin_RectifyDataConverter_convert(&handle, &row, &p), TL_OK);
    EXPECT_EQ(velquin_RectifyDataConverter_finalize(&handle), TL_OK);
    EXPECT_EQ(handle.context, nullptr);
    EXPECT_EQ(velquin_RectifyDataConverter_finalize(&handle), TL_ERROR_PARAM);
    EXPECT_TRUE(
        std::all_of(buffer, buffer + size, [](uint8_t b) { return b == 0; }));  // the context is zeroed
}
