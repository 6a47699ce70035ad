<?php

declare(strict_types=1);

/*
 * Loaded first by every page and script: finds the classes, sends messages to
 * the log, and makes every warning an exception, so that nothing goes on with
 * half a result.
 */

spl_autoload_register(static function (string $class): void {
    $prefix = 'Quorvex\\Authority\\';
    if (str_starts_with($class, $prefix)) {
        require __DIR__ . '/' . substr($class, strlen($prefix)) . '.php';
    }
});

set_error_handler(static function (int $level, string $message, string $file, int $line): bool {
    throw new ErrorException($message, 0, $level, $file, $line);
});

// Named here, because the server runs quietly: addresses that clients asked
// for, which may hold anything, stay out of the log, but so would messages.
if (getenv('QUORVEX_AUTHORITY_DATA') !== false) {
    ini_set('error_log', getenv('QUORVEX_AUTHORITY_DATA') . '/server.log');
}
