#pragma once

/// The product's configuration, a JSON object in the file SONARIX_PRODUCT_CONFIG, by default
/// "/mnt/nv/product-persistence/ProductConfig.json". Safe from any thread.
class ProdConfigData
{
public:
    /// Reads the boolean "accessoryMode" from the file. Returns false if the key or the file is missing. If the file
    /// cannot be read or is not a JSON object, or the key is not a boolean, returns false and logs one level-1 line.
    static bool IsDeviceInAccessoryMode();
};
