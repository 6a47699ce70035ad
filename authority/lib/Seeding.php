<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Prepares a data directory: tables, templates, pools and an administrator. */
final class Seeding
{
    private const POOLS = [1 => 'Primary pool', 2 => 'Archive pool (Ghent|Lyon)'];
    private const TEMPLATES = [1, 2, 3, 6];
    private const KEY = 'passwd=';

    /** Brings the directory up to date; it may be new or hold data. Without a password file it gets one of its own. */
    public static function run(string $directory, string $login, string $passwordFile): void
    {
        $store = Store::create($directory);
        $ownFile = "$directory/admin.passwd";
        $isFresh = $passwordFile === '' && !file_exists($ownFile);
        if ($isFresh) {
            self::makePasswordFile($ownFile);
        }
        $password = self::passwordIn($passwordFile !== '' ? $passwordFile : $ownFile);
        foreach (self::TEMPLATES as $id) {
            $store->saveTemplate($id, self::shipped("templates/$id.cfg"));
        }
        foreach (self::POOLS as $id => $name) {
            $store->savePool($id, $name, self::shipped("pools/$id.recommended"), self::shipped("pools/$id.current"));
        }
        (new Accounts($store))->seedAdministrator($login, $password, $isFresh);
    }

    private static function makePasswordFile(string $path): void
    {
        umask(0177);
        file_put_contents($path, self::KEY . Accounts::freshPassword() . "\n");
    }

    /** The password in a file: what stands behind the first "passwd=" of its first line that has one. */
    private static function passwordIn(string $path): string
    {
        // Not file(): it would drop a carriage return, which clients send as part of the password.
        foreach (explode("\n", file_get_contents($path)) as $line) {
            $found = strstr($line, self::KEY);
            if ($found !== false) {
                return substr($found, strlen(self::KEY));
            }
        }
        throw new \RuntimeException("$path has no line with \"" . self::KEY . '"');
    }

    private static function shipped(string $name): string
    {
        return file_get_contents(__DIR__ . "/../$name");
    }
}
