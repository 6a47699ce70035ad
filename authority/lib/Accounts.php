<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Logins and passwords. Only hashes of passwords are kept. */
final class Accounts
{
    private const COST = ['cost' => 10];

    /** bcrypt reads no further than a zero byte or 72 bytes: beyond them a password would match by its beginning. */
    private const PASSWORD = '/^[^\x00-\x1f\x7f]{1,72}$/D';

    private const FRESH_PASSWORD_BYTES = 24;

    /**
     * Begins the hash of a fresh password. Slow hashing makes up for passwords that
     * can be guessed; one of 192 random bits cannot be, however fast a guess is tried.
     */
    private const FRESH = 'sha256:';

    /** Administrator logins; no colon, which ends the login in HTTP Basic credentials. */
    private const LOGIN = '/^[A-Za-z0-9._@-]{1,64}$/D';

    /** Names of system accounts, which registration gives out. */
    private const SYSTEM_LOGIN = '/^agent[0-9]+$/Di';

    /** Hash of a password that nobody has: a refusal takes as long for every login, known or not. */
    private const NOBODY = '$2y$10$T8KJs49.N1/fO82NVjFpDOQU1BWGwqOBqO9xCIKTwTdje4r8i3Bx6';

    public function __construct(private readonly Store $store)
    {
    }

    /** The caller whose login and password these are; otherwise a refusal that does not tell which of them is wrong. */
    public function check(string $login, #[\SensitiveParameter] string $passwd): Caller
    {
        $account = $this->store->account($login);
        $hash = $account['password_hash'] ?? self::NOBODY;
        if (!self::matches($passwd, $hash) || $account === null || preg_match(self::PASSWORD, $passwd) !== 1) {
            self::makeUpForSpeed($hash, $passwd);
            throw new Refusal(Fault::LoginFailed, 'Login failed');
        }
        return new Caller($account['login'], $account['agent_id']);
    }

    /** Name of the system account of an agent. */
    public static function systemLogin(int $agentId): string
    {
        return "agent$agentId";
    }

    /** A fresh random password: 32 letters, digits, hyphens and underscores. */
    public static function freshPassword(): string
    {
        return strtr(base64_encode(random_bytes(self::FRESH_PASSWORD_BYTES)), '+/', '-_');
    }

    /** Hash of a password from freshPassword(), and of no other. */
    public static function hashFresh(#[\SensitiveParameter] string $passwd): string
    {
        return self::FRESH . hash('sha256', $passwd);
    }

    /** Hash of a password that somebody chose: slow, because such passwords can be guessed. */
    public static function hash(#[\SensitiveParameter] string $passwd): string
    {
        return password_hash($passwd, PASSWORD_BCRYPT, self::COST);
    }

    /**
     * Creates an administrator, or gives an existing one this password.
     *
     * @param bool $isFresh whether it comes from freshPassword(), just now
     */
    public function seedAdministrator(string $login, #[\SensitiveParameter] string $passwd, bool $isFresh): void
    {
        if (preg_match(self::LOGIN, $login) !== 1 || preg_match(self::SYSTEM_LOGIN, $login) === 1) {
            throw new \RuntimeException("\"$login\" cannot be the login of an administrator");
        }
        if (preg_match(self::PASSWORD, $passwd) !== 1) {
            throw new \RuntimeException('the password must be 1 to 72 bytes without control characters');
        }
        // One that was fresh when the account was made, and is the same still, stays known as such.
        if (($this->store->account($login)['password_hash'] ?? '') !== self::hashFresh($passwd)) {
            $this->store->saveAccount($login, $isFresh ? self::hashFresh($passwd) : self::hash($passwd), null);
        }
    }

    private static function matches(#[\SensitiveParameter] string $passwd, string $hash): bool
    {
        return str_starts_with($hash, self::FRESH)
            ? hash_equals($hash, self::hashFresh($passwd))
            : password_verify($passwd, $hash);
    }

    /** Makes up for the time that comparing with this hash did not take. */
    private static function makeUpForSpeed(string $hash, #[\SensitiveParameter] string $passwd): void
    {
        if (str_starts_with($hash, self::FRESH)) {
            password_verify($passwd, self::NOBODY);
        }
    }
}
