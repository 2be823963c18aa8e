#pragma once

/// The product's configuration, a JSON object in the file SONARIX_PRODUCT_CONFIG, by default
/// "/mnt/nv/product-persistence/ProductConfig.json". Safe from any thread.
class ProdConfigData
{
public:
    /// The boolean "accessoryMode". False where the key or the file is missing; false with one level-1 line where
    /// the file cannot be read, is no JSON object, or the key is no boolean.
    static bool IsDeviceInAccessoryMode();
};
